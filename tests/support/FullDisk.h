#pragma once

#include <QString>

// A full disk for this process: no file it writes may grow past `bytes` (writes beyond fail with
// EFBIG instead of ending the process), and standard error goes to a pipe meanwhile, as no file
// could take it. release() (or the destructor) lifts both and returns what went to standard error.
class FullDisk {
public:
    explicit FullDisk(long bytes = 0);
    ~FullDisk();
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;
    QString release();

private:
    unsigned long savedLimit_[2] = {0, 0};  // rlimit's soft and hard limit
    void (*savedHandler_)(int) = nullptr;
    int savedStderr_ = -1, pipe_ = -1;
};
