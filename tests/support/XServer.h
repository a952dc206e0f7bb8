#pragma once

#include <QProcess>
#include <QString>

// An Xvfb of the test's own, for tests that make the X server go away under a program (tests that
// merely need one ask run-test.sh for it with XVFB).
class XServer {
public:
    ~XServer();
    // What went wrong, or an empty string once the server accepts clients.
    QString start();
    QString display() const { return display_; }  // ":N"
    // Ends it at once, as a crash would: SIGKILL.
    void kill();

private:
    QProcess xvfb_;
    QString display_;
};
