// A download that a later run can continue. Checkpoints beside the partial file vouch for its first bytes.
#pragma once

#include <string>

#include "transport/transport.hpp"
#include "tuf/target_download.hpp"

namespace ravok {

// Fetches what is missing of a target, from a transport that supports resumption, and puts it into its place. Continues
// the unfinished download of the same target, authorization and scope that has come furthest, once the bytes on the
// disk have been proved to be those that its checkpoint vouches for. Every 8 MiB it writes a checkpoint.
//
// After a failure the partial file and its checkpoint stay, so that the next run can continue, except where the bytes
// cannot become the target. Fails with "hash_mismatch" or "length_mismatch" for a file that is not the target; with
// "download_resume_changed" when the partial file or its checkpoint is no longer what was written; with
// "download_resume_state" and "download_resume_capacity" as best_checkpoint does; with "size_limit"; with
// "allocation_changed" and the other codes of AllocatedFile; as the transport, the writers of records and the
// callbacks do; and with "file_write" where the file cannot be moved into its place.
void resumed_target(Transport& transport, const std::string& remote, const TargetDownload& download);

}  // namespace ravok
