#include "keyboard/wayland/WaylandConnection.h"

#include "ext-data-control-v1-client-protocol.h"
#include "virtual-keyboard-unstable-v1-client-protocol.h"
#include "wlr-data-control-unstable-v1-client-protocol.h"
#include "wlr-foreign-toplevel-management-unstable-v1-client-protocol.h"

#include <QSocketNotifier>

#include <wayland-client.h>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {
// The toplevel-handle events Tolvane does not need.
void ignoreTitle(void*, zwlr_foreign_toplevel_handle_v1*, const char*) {}
void ignoreOutput(void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {}
void ignoreParent(void*, zwlr_foreign_toplevel_handle_v1*, zwlr_foreign_toplevel_handle_v1*) {}
void ignoreSeatName(void*, wl_seat*, const char*) {}
}  // namespace

WaylandConnection::WaylandConnection(QObject* parent) : QObject(parent) {}

WaylandConnection::~WaylandConnection()
{
    if (!display_)
        return;
    for (auto& [handle, window] : windows_)
        zwlr_foreign_toplevel_handle_v1_destroy(handle);
    if (toplevels_)
        zwlr_foreign_toplevel_manager_v1_destroy(toplevels_);
    if (extDataControl_)
        ext_data_control_manager_v1_destroy(extDataControl_);
    if (wlrDataControl_)
        zwlr_data_control_manager_v1_destroy(wlrDataControl_);
    if (virtualKeyboards_)
        zwp_virtual_keyboard_manager_v1_destroy(virtualKeyboards_);
    if (keyboard_)
        wl_keyboard_destroy(keyboard_);
    if (seat_)
        wl_seat_destroy(seat_);
    if (registry_)
        wl_registry_destroy(registry_);
    wl_display_flush(display_);
    wl_display_disconnect(display_);
}

bool WaylandConnection::open(QString* error)
{
    display_ = wl_display_connect(nullptr);
    if (!display_) {
        *error = QStringLiteral("cannot connect to the compositor (WAYLAND_DISPLAY=%1)").arg(qEnvironmentVariable("WAYLAND_DISPLAY"));
        return false;
    }
    static const wl_registry_listener registryListener{&WaylandConnection::onGlobal, &WaylandConnection::onGlobalRemove};
    registry_ = wl_display_get_registry(display_);
    wl_registry_add_listener(registry_, &registryListener, this);
    // Globals first, then what binding them sent (capabilities, keymap, the windows).
    if (!roundtrip() || !roundtrip() || !roundtrip()) {
        *error = QStringLiteral("the compositor closed the connection");
        return false;
    }
    notifier_ = new QSocketNotifier(wl_display_get_fd(display_), QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &WaylandConnection::onReadable);
    return true;
}

bool WaylandConnection::broken() const { return !display_ || wl_display_get_error(display_) != 0; }

void WaylandConnection::onReadable()
{
    if (broken()) {
        notifier_->setEnabled(false);
        return;
    }
    while (wl_display_prepare_read(display_) != 0)
        wl_display_dispatch_pending(display_);
    if (wl_display_read_events(display_) < 0 && errno != EAGAIN) {
        notifier_->setEnabled(false);
        return;
    }
    wl_display_dispatch_pending(display_);
    flush();
}

bool WaylandConnection::flush()
{
    while (!broken()) {
        if (wl_display_flush(display_) >= 0)
            return true;
        if (errno != EAGAIN)
            return false;
        pollfd p{wl_display_get_fd(display_), POLLOUT, 0};
        poll(&p, 1, 1000);
    }
    return false;
}

bool WaylandConnection::roundtrip() { return !broken() && wl_display_roundtrip(display_) >= 0; }

QString WaylandConnection::activeAppId() const
{
    for (const auto& [handle, window] : windows_) {
        if (window.activated)
            return window.appId;
    }
    return {};
}

void WaylandConnection::onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    auto* self = static_cast<WaylandConnection*>(data);
    const auto bind = [&](const wl_interface* iface, uint32_t highest) {
        return wl_registry_bind(registry, name, iface, std::min(version, highest));
    };
    if (std::strcmp(interface, wl_seat_interface.name) == 0 && !self->seat_) {
        self->seat_ = static_cast<wl_seat*>(bind(&wl_seat_interface, 5));
        static const wl_seat_listener seatListener{&WaylandConnection::onSeatCapabilities, ignoreSeatName};
        wl_seat_add_listener(self->seat_, &seatListener, self);
    } else if (std::strcmp(interface, zwp_virtual_keyboard_manager_v1_interface.name) == 0) {
        self->virtualKeyboards_ = static_cast<zwp_virtual_keyboard_manager_v1*>(bind(&zwp_virtual_keyboard_manager_v1_interface, 1));
    } else if (std::strcmp(interface, ext_data_control_manager_v1_interface.name) == 0) {
        self->extDataControl_ = static_cast<ext_data_control_manager_v1*>(bind(&ext_data_control_manager_v1_interface, 1));
    } else if (std::strcmp(interface, zwlr_data_control_manager_v1_interface.name) == 0) {
        self->wlrDataControl_ = static_cast<zwlr_data_control_manager_v1*>(bind(&zwlr_data_control_manager_v1_interface, 1));
    } else if (std::strcmp(interface, zwlr_foreign_toplevel_manager_v1_interface.name) == 0) {
        self->toplevels_ = static_cast<zwlr_foreign_toplevel_manager_v1*>(bind(&zwlr_foreign_toplevel_manager_v1_interface, 1));
        static const zwlr_foreign_toplevel_manager_v1_listener listener{
            &WaylandConnection::onToplevel, [](void*, zwlr_foreign_toplevel_manager_v1*) {}};
        zwlr_foreign_toplevel_manager_v1_add_listener(self->toplevels_, &listener, self);
    }
}

void WaylandConnection::onGlobalRemove(void*, wl_registry*, uint32_t) {}

void WaylandConnection::onSeatCapabilities(void* data, wl_seat* seat, uint32_t caps)
{
    auto* self = static_cast<WaylandConnection*>(data);
    const bool hasKeyboard = caps & WL_SEAT_CAPABILITY_KEYBOARD;
    if (hasKeyboard && !self->keyboard_) {
        // Only the keymap matters: Tolvane has no Wayland surface, so no key ever comes here.
        static const wl_keyboard_listener listener{
            &WaylandConnection::onKeymap,
            [](void*, wl_keyboard*, uint32_t, wl_surface*, wl_array*) {},
            [](void*, wl_keyboard*, uint32_t, wl_surface*) {},
            [](void*, wl_keyboard*, uint32_t, uint32_t, uint32_t, uint32_t) {},
            [](void*, wl_keyboard*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {},
            [](void*, wl_keyboard*, int32_t, int32_t) {}};
        self->keyboard_ = wl_seat_get_keyboard(seat);
        wl_keyboard_add_listener(self->keyboard_, &listener, self);
    } else if (!hasKeyboard && self->keyboard_) {
        wl_keyboard_destroy(self->keyboard_);
        self->keyboard_ = nullptr;
    }
}

void WaylandConnection::onKeymap(void* data, wl_keyboard*, uint32_t format, int32_t fd, uint32_t size)
{
    auto* self = static_cast<WaylandConnection*>(data);
    if (format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1 && size > 0) {
        void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (map != MAP_FAILED) {
            // The text ends in a NUL byte.
            self->userKeymap_ = QByteArray(static_cast<const char*>(map), static_cast<qsizetype>(strnlen(static_cast<const char*>(map), size)));
            munmap(map, size);
        }
    }
    close(fd);
}

void WaylandConnection::onToplevel(void* data, zwlr_foreign_toplevel_manager_v1*, zwlr_foreign_toplevel_handle_v1* handle)
{
    auto* self = static_cast<WaylandConnection*>(data);
    self->windows_[handle] = {};
    static const zwlr_foreign_toplevel_handle_v1_listener listener{
        ignoreTitle,
        [](void* data, zwlr_foreign_toplevel_handle_v1* h, const char* appId) {
            static_cast<WaylandConnection*>(data)->windows_[h].pendingAppId = QString::fromUtf8(appId);
        },
        ignoreOutput,
        ignoreOutput,
        [](void* data, zwlr_foreign_toplevel_handle_v1* h, wl_array* states) {
            bool activated = false;
            const auto* s = static_cast<const uint32_t*>(states->data);
            for (size_t i = 0; i < states->size / sizeof(uint32_t); ++i)
                activated = activated || s[i] == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_ACTIVATED;
            static_cast<WaylandConnection*>(data)->windows_[h].pendingActivated = activated;
        },
        [](void* data, zwlr_foreign_toplevel_handle_v1* h) {
            // Changes take effect together, at "done".
            Toplevel& w = static_cast<WaylandConnection*>(data)->windows_[h];
            w.appId = w.pendingAppId;
            w.activated = w.pendingActivated;
        },
        [](void* data, zwlr_foreign_toplevel_handle_v1* h) {
            static_cast<WaylandConnection*>(data)->windows_.erase(h);
            zwlr_foreign_toplevel_handle_v1_destroy(h);
        },
        ignoreParent};
    zwlr_foreign_toplevel_handle_v1_add_listener(handle, &listener, self);
}
