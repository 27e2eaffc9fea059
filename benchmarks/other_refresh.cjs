// The same as refresh_program, by another implementation:
//
//   NODE_EXTRA_CA_CERTS=AUTHORITY node other_refresh.cjs TRUSTED URL

'use strict';

const { Updater } = require('tuf-js');

const [metadataDir, metadataBaseUrl] = process.argv.slice(2);
new Updater({ metadataDir, metadataBaseUrl }).refresh().catch((error) => {
  console.error(error);
  process.exit(1);
});
