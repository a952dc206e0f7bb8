#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>
#include <optional>
#include <utility>

// A Wayland compositor of the test's own, in this process, for the protocols no compositor here
// offers: a seat and the data-control managers asked for, keeping one selection as a compositor does
// (every device told of each new one, a paste forwarded to the owner, the owner that lost it
// cancelled). Its socket lies in the sandbox's XDG_RUNTIME_DIR. It runs on a thread of its own, so a
// client in the test's thread may block on it.
class FakeCompositor {
public:
    // MIME type and bytes, in the order they are offered.
    using Content = QList<std::pair<QByteArray, QByteArray>>;

    FakeCompositor();
    ~FakeCompositor();
    // What went wrong, or an empty string once it listens, offering ext_data_control_manager_v1 and
    // zwlr_data_control_manager_v1 as asked.
    QString start(bool ext, bool wlr);
    // Disconnects every client.
    void stop();
    // Its socket's name, for WAYLAND_DISPLAY (beside the test's XDG_RUNTIME_DIR).
    QString waylandDisplay() const;

    // Another application copies: the compositor itself serves `content`.
    void copy(const Content& content);
    // The selection's owner (the manager interface of the client that set it, "compositor" for copy(),
    // empty when there is none), its MIME types, and how often it has changed hands.
    struct SelectionState {
        QString owner;
        QList<QByteArray> types;
        int changes = 0;
    };
    SelectionState selection();
    // Pastes `mimeType` as an application does, running the event loop while the owner answers;
    // nothing when there is no selection or the owner did not close the pipe in time.
    std::optional<QByteArray> paste(const QByteArray& mimeType);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};
