#include "support/FakeCompositor.h"

#include "support/TestSupport.h"

#include "ext-data-control-v1-server-protocol.h"
#include "wlr-data-control-unstable-v1-server-protocol.h"

#include <wayland-server.h>

#include <QDir>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <thread>
#include <unistd.h>
#include <vector>

struct FakeCompositor::Impl {
    // One data-control protocol. ext_data_control_v1 has wlr's messages in the same order, so ext's
    // generated request tables and event senders serve both.
    struct Protocol {
        Impl* impl;
        const wl_interface *manager, *device, *source, *offer;
    };
    struct Source {
        Protocol* protocol;
        QList<QByteArray> types;
    };
    // A client's source, or the compositor's own content.
    struct Selection {
        QString owner;
        QList<QByteArray> types;
        wl_resource* source = nullptr;
        Content content;
    };

    wl_display* display = nullptr;
    QString socket;
    std::thread thread;
    std::atomic<bool> quit = false;
    std::mutex mutex;  // held by the compositor's thread while it dispatches
    Protocol ext{this, &ext_data_control_manager_v1_interface, &ext_data_control_device_v1_interface,
                 &ext_data_control_source_v1_interface, &ext_data_control_offer_v1_interface};
    Protocol wlr{this, &zwlr_data_control_manager_v1_interface, &zwlr_data_control_device_v1_interface,
                 &zwlr_data_control_source_v1_interface, &zwlr_data_control_offer_v1_interface};
    std::vector<wl_resource*> devices;
    std::optional<Selection> selection;
    int changes = 0;

    void setSelection(std::optional<Selection> next)
    {
        if (selection && selection->source)
            ext_data_control_source_v1_send_cancelled(selection->source);
        selection = std::move(next);
        ++changes;
        for (wl_resource* device : devices)
            announce(device);
    }

    // Tells a device of the selection: a new offer with its types, then the selection.
    void announce(wl_resource* device)
    {
        if (!selection)
            return ext_data_control_device_v1_send_selection(device, nullptr);
        static const struct ext_data_control_offer_v1_interface requests{
            [](wl_client*, wl_resource* offer, const char* mimeType, int32_t fd) {
                static_cast<Impl*>(wl_resource_get_user_data(offer))->send(mimeType, fd);
            },
            [](wl_client*, wl_resource* offer) { wl_resource_destroy(offer); }};
        const auto* protocol = static_cast<Protocol*>(wl_resource_get_user_data(device));
        wl_resource* offer = wl_resource_create(wl_resource_get_client(device), protocol->offer, 1, 0);
        wl_resource_set_implementation(offer, &requests, this, nullptr);
        ext_data_control_device_v1_send_data_offer(device, offer);
        for (const QByteArray& type : selection->types)
            ext_data_control_offer_v1_send_offer(offer, type.constData());
        ext_data_control_device_v1_send_selection(device, offer);
    }

    // Answers a paste through `fd`, which it closes.
    void send(const char* mimeType, int fd)
    {
        if (selection && selection->source) {
            ext_data_control_source_v1_send_send(selection->source, mimeType, fd);  // the event carries a copy of fd
        } else if (selection) {
            for (const auto& [type, bytes] : selection->content) {
                if (type != mimeType)
                    continue;
                // Written on a thread of its own: the compositor goes on while the reader takes its time.
                return std::thread([fd, data = bytes] {
                    for (qsizetype done = 0, n = 0; done < data.size(); done += n) {
                        if ((n = ::write(fd, data.constData() + done, size_t(data.size() - done))) <= 0)
                            break;
                    }
                    close(fd);
                }).detach();
            }
        }
        close(fd);
    }
};

namespace {
using Impl = FakeCompositor::Impl;

void destroyResource(wl_client*, wl_resource* resource) { wl_resource_destroy(resource); }
template <typename T>
T* dataOf(wl_resource* resource)
{
    return static_cast<T*>(wl_resource_get_user_data(resource));
}

void createDataSource(wl_client* client, wl_resource* manager, uint32_t id)
{
    static const struct ext_data_control_source_v1_interface requests{
        [](wl_client*, wl_resource* source, const char* mimeType) { dataOf<Impl::Source>(source)->types << QByteArray(mimeType); },
        destroyResource};
    auto* protocol = dataOf<Impl::Protocol>(manager);
    wl_resource* resource = wl_resource_create(client, protocol->source, 1, id);
    wl_resource_set_implementation(resource, &requests, new Impl::Source{protocol}, [](wl_resource* r) {
        // A source that goes away takes the selection with it.
        auto* source = dataOf<Impl::Source>(r);
        Impl& impl = *source->protocol->impl;
        if (impl.selection && impl.selection->source == r) {
            impl.selection.reset();
            impl.setSelection(std::nullopt);
        }
        delete source;
    });
}

void setSelection(wl_client*, wl_resource* device, wl_resource* resource)
{
    Impl& impl = *dataOf<Impl::Protocol>(device)->impl;
    if (!resource)
        return impl.setSelection(std::nullopt);
    const auto* source = dataOf<Impl::Source>(resource);
    impl.setSelection(Impl::Selection{QString::fromLatin1(source->protocol->manager->name), source->types, resource});
}

void getDataDevice(wl_client* client, wl_resource* manager, uint32_t id, wl_resource*)
{
    static const struct ext_data_control_device_v1_interface requests{setSelection, destroyResource,
                                                               [](wl_client*, wl_resource*, wl_resource*) {}};  // no primary selection
    auto* protocol = dataOf<Impl::Protocol>(manager);
    wl_resource* device = wl_resource_create(client, protocol->device, 1, id);
    wl_resource_set_implementation(device, &requests, protocol,
                                   [](wl_resource* r) { std::erase(dataOf<Impl::Protocol>(r)->impl->devices, r); });
    protocol->impl->devices.push_back(device);
    protocol->impl->announce(device);
}

void bindManager(wl_client* client, void* protocol, uint32_t, uint32_t id)
{
    static const struct ext_data_control_manager_v1_interface requests{createDataSource, getDataDevice, destroyResource};
    wl_resource* manager = wl_resource_create(client, static_cast<Impl::Protocol*>(protocol)->manager, 1, id);
    wl_resource_set_implementation(manager, &requests, protocol, nullptr);
}

void bindSeat(wl_client* client, void*, uint32_t, uint32_t id)
{
    // A seat without devices: asking it for one is the client's mistake.
    const auto noDevice = [](wl_client* client, wl_resource*, uint32_t) {
        wl_client_post_implementation_error(client, "the seat has no pointer, keyboard or touch");
    };
    static const struct wl_seat_interface requests{noDevice, noDevice, noDevice, destroyResource};
    wl_resource_set_implementation(wl_resource_create(client, &wl_seat_interface, 1, id), &requests, nullptr, nullptr);
}
}  // namespace

FakeCompositor::FakeCompositor() : impl_(std::make_unique<Impl>()) {}

FakeCompositor::~FakeCompositor() { stop(); }

QString FakeCompositor::start(bool ext, bool wlr)
{
    // Never beside a real session's socket.
    const QString sandbox = qEnvironmentVariable("TOLVANE_TEST_SANDBOX");
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (sandbox.isEmpty() || !QDir(runtime).canonicalPath().startsWith(QDir(sandbox).canonicalPath() + QLatin1Char('/')))
        return QStringLiteral("XDG_RUNTIME_DIR is not inside the test's sandbox (run the test through ctest)");
    // A reader that closes its end early must not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    Impl& d = *impl_;
    d.display = wl_display_create();
    const char* socket = wl_display_add_socket_auto(d.display);
    if (!socket) {
        stop();
        return QStringLiteral("cannot listen in ") + runtime;
    }
    d.socket = QString::fromLocal8Bit(socket);
    wl_global_create(d.display, &wl_seat_interface, 1, nullptr, bindSeat);
    if (ext)
        wl_global_create(d.display, d.ext.manager, 1, &d.ext, bindManager);
    if (wlr)
        wl_global_create(d.display, d.wlr.manager, 1, &d.wlr, bindManager);
    d.thread = std::thread([&d] {
        pollfd loop{wl_event_loop_get_fd(wl_display_get_event_loop(d.display)), POLLIN, 0};
        while (!d.quit) {
            poll(&loop, 1, 10);  // bounded, so that stop() is seen
            const std::lock_guard lock(d.mutex);
            wl_event_loop_dispatch(wl_display_get_event_loop(d.display), 0);
            wl_display_flush_clients(d.display);
        }
    });
    return {};
}

void FakeCompositor::stop()
{
    Impl& d = *impl_;
    if (!d.display)
        return;
    d.quit = true;
    if (d.thread.joinable())
        d.thread.join();
    // Nobody is left to tell.
    d.devices.clear();
    d.selection.reset();
    wl_display_destroy_clients(d.display);
    wl_display_destroy(d.display);
    impl_ = std::make_unique<Impl>();
}

QString FakeCompositor::waylandDisplay() const { return impl_->socket; }

void FakeCompositor::copy(const Content& content)
{
    const std::lock_guard lock(impl_->mutex);
    QList<QByteArray> types;
    for (const auto& [type, bytes] : content)
        types << type;
    impl_->setSelection(Impl::Selection{QStringLiteral("compositor"), types, nullptr, content});
}

FakeCompositor::SelectionState FakeCompositor::selection()
{
    const std::lock_guard lock(impl_->mutex);
    const auto& s = impl_->selection;
    return {s ? s->owner : QString(), s ? s->types : QList<QByteArray>(), impl_->changes};
}

std::optional<QByteArray> FakeCompositor::paste(const QByteArray& mimeType)
{
    int fds[2];
    {
        const std::lock_guard lock(impl_->mutex);
        if (!impl_->selection || pipe2(fds, O_CLOEXEC) != 0)
            return std::nullopt;
        impl_->send(mimeType.constData(), fds[1]);
    }
    // The owner may be served by this thread's event loop: read without blocking it.
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    QByteArray out;
    ssize_t n = -1;
    TestSupport::waitUntil([&] {
        char buf[65536];
        while ((n = ::read(fds[0], buf, sizeof buf)) > 0)
            out.append(buf, n);
        return n == 0 || (errno != EAGAIN && errno != EINTR);
    }, 10000);
    close(fds[0]);
    return n == 0 ? std::optional(out) : std::nullopt;
}
