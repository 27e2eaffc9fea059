// Flushes that do nothing, preloaded into a program: what it then leaves shows whether a check notices.

extern "C" {

int fsync(int) { return 0; }
int fdatasync(int) { return 0; }
int syncfs(int) { return 0; }
int sync_file_range(int, long, long, unsigned) { return 0; }
void sync() {}
}
