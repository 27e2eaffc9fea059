// Makes signed repositories with an implementation that shares nothing with the client's.
//
//   make_repository.cjs FOLDER [consistent] [plain]
//
// Writes FOLDER/consistent and FOLDER/plain: one repository each, with consistent snapshots and without. Each holds
// `root.json`, which a client may begin with, and the states `before` and `after`, of which a server shows one at a
// time: `metadata` and `targets` as a client asks for them. From `before` to `after` all keys have been changed twice,
// two targets have changed, and one is gone. `targets.json` beside the states lists the content of each target in each.

'use strict';

const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { Key, MetaFile, Metadata, Root, Signature, Snapshot, TargetFile, Targets, Timestamp } = require('@tufjs/models');
const { canonicalize } = require('@tufjs/canonical-json');
const { Delegations } = require('@tufjs/models/dist/delegations.js');
const { DelegatedRole, Role } = require('@tufjs/models/dist/role.js');

const EXPIRES = '2035-01-01T00:00:00Z';
const SPEC_VERSION = '1.0.31';
const TOP_LEVEL = ['root', 'timestamp', 'snapshot', 'targets'];

const digest = (bytes, algorithm = 'sha256') => crypto.createHash(algorithm).update(bytes).digest('hex');

// A pair of keys. Its ID is the digest of the public key object in its canonical form.
class Pair {
  constructor(kind) {
    const pem = { publicKeyEncoding: { type: 'spki', format: 'pem' } };
    if (kind === 'rsa') {
      const made = crypto.generateKeyPairSync('rsa', { modulusLength: 2048 });
      this.secret = made.privateKey;
      this.json = {
        keytype: 'rsa',
        scheme: 'rsassa-pss-sha256',
        keyval: { public: made.publicKey.export({ type: 'spki', format: 'pem' }) },
      };
    } else if (kind === 'ecdsa') {
      const made = crypto.generateKeyPairSync('ec', { namedCurve: 'P-256' });
      this.secret = made.privateKey;
      this.json = {
        keytype: 'ecdsa',
        scheme: 'ecdsa-sha2-nistp256',
        keyval: { public: made.publicKey.export({ type: 'spki', format: 'pem' }) },
      };
    } else {
      const made = crypto.generateKeyPairSync('ed25519');
      this.secret = made.privateKey;
      const raw = made.publicKey.export({ type: 'spki', format: 'der' }).subarray(-32);
      this.json = { keytype: 'ed25519', scheme: 'ed25519', keyval: { public: raw.toString('hex') } };
    }
    this.kind = kind;
    this.id = digest(Buffer.from(canonicalize(this.json)));
  }

  key() {
    return Key.fromJSON(this.id, structuredClone(this.json));
  }

  signer() {
    return (bytes) => {
      let made;
      if (this.kind === 'rsa') {
        made = crypto.sign('sha256', bytes, {
          key: this.secret,
          padding: crypto.constants.RSA_PKCS1_PSS_PADDING,
          saltLength: crypto.constants.RSA_PSS_SALTLEN_DIGEST,
        });
      } else {
        made = crypto.sign(this.kind === 'ecdsa' ? 'sha256' : undefined, bytes, this.secret);
      }
      return new Signature({ keyID: this.id, sig: made.toString('hex') });
    };
  }
}

function signedText(signed, pairs) {
  const document = new Metadata(signed);
  for (const pair of pairs) {
    document.sign(pair.signer(), true);
  }
  return JSON.stringify(document.toJSON());
}

const keysOf = (pairs) => Object.fromEntries(pairs.map((pair) => [pair.id, pair.key()]));

// One repository through its versions. `write` puts out what a server shows of it now.
class Repository {
  constructor(consistent) {
    this.consistent = consistent;
    this.roots = [];
    this.version = 0;
    this.files = new Map();
    this.content = new Map();
  }

  // Gives every top-level role fresh keys. The root is signed by the old ones and by the new ones.
  rotate() {
    const old = this.pairs;
    this.pairs = {
      root: [new Pair('rsa'), new Pair('ed25519'), new Pair('ecdsa')],
      timestamp: [new Pair('ed25519')],
      snapshot: [new Pair('ecdsa')],
      targets: [new Pair('rsa'), new Pair('ed25519')],
    };
    const thresholds = { root: 2, timestamp: 1, snapshot: 1, targets: 2 };
    const roles = {};
    let keys = {};
    for (const role of TOP_LEVEL) {
      roles[role] = new Role({ keyIDs: this.pairs[role].map((pair) => pair.id), threshold: thresholds[role] });
      keys = { ...keys, ...keysOf(this.pairs[role]) };
    }
    const root = new Root({
      version: this.roots.length + 1,
      specVersion: SPEC_VERSION,
      expires: EXPIRES,
      keys,
      roles,
      consistentSnapshot: this.consistent,
    });
    this.roots.push(signedText(root, [...(old ? old.root.slice(0, 2) : []), ...this.pairs.root.slice(1)]));
  }

  // Signs everything else anew. `content` maps each target to its text.
  publish(content) {
    this.version += 1;
    this.content = new Map(Object.entries(content));
    const delegated = new Map();
    const bins = Array.from({ length: 16 }, (_, i) => i.toString(16));
    const inBin = (name) => !name.startsWith('games/') && !name.startsWith('top');
    const describe = (names) => {
      const described = {};
      for (const name of names) {
        const bytes = Buffer.from(this.content.get(name));
        described[name] = new TargetFile({
          path: name,
          length: bytes.length,
          hashes: { sha256: digest(bytes), sha512: digest(bytes, 'sha512') },
          unrecognizedFields: { custom: { title: `The file "${name}"`, size: bytes.length } },
        });
      }
      return described;
    };
    const names = [...this.content.keys()];
    const binPair = new Pair('ed25519');
    for (const bin of bins) {
      const targets = describe(names.filter((name) => inBin(name) && digest(Buffer.from(name)).startsWith(bin)));
      delegated.set(`bin-${bin}`, signedText(new Targets({ ...this.common(), targets }), [binPair]));
    }
    // The studio's own keys, and below it another studio that has one game of it.
    const studio = [new Pair('rsa'), new Pair('ecdsa')];
    const guest = new Pair('ed25519');
    const isGuest = (name) => name.startsWith('games/guest/');
    delegated.set('guest studio/é', signedText(new Targets({ ...this.common(), targets: describe(names.filter(isGuest)) }), [guest]));
    delegated.set(
      'studio',
      signedText(
        new Targets({
          ...this.common(),
          targets: describe(names.filter((name) => name.startsWith('games/') && !isGuest(name))),
          delegations: new Delegations({
            keys: keysOf([guest]),
            roles: {
              'guest studio/é': new DelegatedRole({
                name: 'guest studio/é',
                keyIDs: [guest.id],
                threshold: 1,
                terminating: false,
                paths: ['games/guest/*'],
              }),
            },
          }),
        }),
        studio,
      ),
    );
    const roles = {
      studio: new DelegatedRole({
        name: 'studio',
        keyIDs: studio.map((pair) => pair.id),
        threshold: 2,
        terminating: true,
        paths: ['games/*', 'games/*/*'],
      }),
    };
    for (const bin of bins) {
      roles[`bin-${bin}`] = new DelegatedRole({
        name: `bin-${bin}`,
        keyIDs: [binPair.id],
        threshold: 1,
        terminating: false,
        pathHashPrefixes: [bin],
      });
    }
    const targets = signedText(
      new Targets({
        ...this.common(),
        targets: describe(names.filter((name) => name.startsWith('top'))),
        delegations: new Delegations({ keys: keysOf([...studio, binPair]), roles }),
      }),
      this.pairs.targets,
    );
    const meta = { 'targets.json': this.metaFile(targets) };
    for (const [role, text] of delegated) {
      meta[`${role}.json`] = this.metaFile(text);
    }
    const snapshot = signedText(new Snapshot({ ...this.common(), meta }), this.pairs.snapshot);
    const timestamp = signedText(
      new Timestamp({ ...this.common(), snapshotMeta: this.metaFile(snapshot) }),
      this.pairs.timestamp,
    );
    const prefix = this.consistent ? `${this.version}.` : '';
    this.files = new Map([
      ['timestamp.json', timestamp],
      [`${prefix}snapshot.json`, snapshot],
      [`${prefix}targets.json`, targets],
    ]);
    for (const [role, text] of delegated) {
      this.files.set(`${prefix}${role}.json`, text);
    }
  }

  common() {
    return { version: this.version, specVersion: SPEC_VERSION, expires: EXPIRES };
  }

  metaFile(text) {
    const bytes = Buffer.from(text);
    return new MetaFile({ version: this.version, length: bytes.length, hashes: { sha256: digest(bytes) } });
  }

  write(folder) {
    const put = (name, bytes) => {
      fs.mkdirSync(path.dirname(name), { recursive: true });
      fs.writeFileSync(name, bytes);
    };
    this.roots.forEach((text, index) => put(path.join(folder, 'metadata', `${index + 1}.root.json`), text));
    for (const [name, text] of this.files) {
      put(path.join(folder, 'metadata', encodeURIComponent(name)), text);
    }
    for (const [name, text] of this.content) {
      const base = this.consistent ? `${digest(Buffer.from(text))}.${path.posix.basename(name)}` : path.posix.basename(name);
      put(path.join(folder, 'targets', path.posix.dirname(name), base), text);
    }
  }
}

function make(folder, consistent) {
  const repository = new Repository(consistent);
  repository.rotate();
  const before = {
    'top.bin': 'at the top',
    'games/one.zip': 'one game',
    'games/guest/two.zip': 'another game',
    'launcher/linux/archive': 'x'.repeat(100000),
    'launcher/linux/with a "name"': 'quotes, \\ and é',
    'launcher/gone': 'only before',
  };
  repository.publish(before);
  repository.write(path.join(folder, 'before'));
  fs.writeFileSync(path.join(folder, 'root.json'), repository.roots[0]);
  repository.rotate();
  repository.rotate();
  const after = { ...before, 'top.bin': 'changed at the top', 'games/guest/two.zip': 'a changed game' };
  delete after['launcher/gone'];
  repository.publish(after);
  repository.write(path.join(folder, 'after'));
  fs.writeFileSync(path.join(folder, 'targets.json'), JSON.stringify({ before, after }));
}

const [output, ...names] = process.argv.slice(2);
for (const name of names) {
  fs.mkdirSync(path.join(output, name), { recursive: true });
  make(path.join(output, name), name === 'consistent');
}
