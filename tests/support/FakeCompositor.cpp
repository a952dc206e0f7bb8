#include "support/FakeCompositor.h"

#include "support/TestSupport.h"

#include "ext-data-control-v1-server-protocol.h"
#include "wlr-data-control-unstable-v1-server-protocol.h"

#include <wayland-server.h>

#include <QDir>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <future>
#include <list>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
// A selection's owner: a client's source, or one of the compositor's own.
struct DataSource {
    virtual ~DataSource() = default;
    virtual QString owner() const = 0;
    // Answers a paste through `fd`, which it closes.
    virtual void send(const char* mimeType, int fd) = 0;
    virtual void cancel() = 0;
    QList<QByteArray> types;
};
}  // namespace

struct FakeCompositor::Impl {
    // An answer of the compositor's own source, written as the reader makes room.
    struct Write {
        Impl* impl;
        int fd;
        QByteArray data;
        qsizetype done = 0;
        wl_event_source* source = nullptr;
    };
    struct Device {
        wl_resource* resource;
        void (*announce)(Impl&, wl_resource*);
    };

    wl_display* display = nullptr;
    wl_event_loop* loop = nullptr;
    wl_event_source* wakeSource = nullptr;
    int wakeFd = -1;
    QString socket;
    std::thread thread;
    std::mutex mutex;
    std::vector<std::function<void()>> calls;  // from the test's thread, run on the compositor's
    bool quit = false;
    bool closing = false;  // clients are being disconnected: nobody is left to tell

    std::vector<Device> devices;
    DataSource* selection = nullptr;
    std::unique_ptr<DataSource> ownSelection;  // when the compositor's own source holds it
    unsigned generation = 0;                    // offers of an older selection answer nothing
    int changes = 0;
    std::list<Write> writes;

    // Runs `f` on the compositor's thread and returns what it returned (nothing when it is not running).
    template <typename F>
    auto run(F f) -> decltype(f())
    {
        if (!thread.joinable())
            return decltype(f())();
        std::packaged_task<decltype(f())()> task(std::move(f));
        auto result = task.get_future();
        {
            std::lock_guard lock(mutex);
            calls.emplace_back([&task] { task(); });
        }
        const uint64_t one = 1;
        [[maybe_unused]] const auto n = ::write(wakeFd, &one, sizeof one);
        return result.get();
    }

    static int onWake(int fd, uint32_t, void* data)
    {
        auto* self = static_cast<Impl*>(data);
        uint64_t count;
        [[maybe_unused]] const auto n = ::read(fd, &count, sizeof count);
        std::vector<std::function<void()>> pending;
        {
            std::lock_guard lock(self->mutex);
            pending.swap(self->calls);
        }
        for (auto& call : pending)
            call();
        return 0;
    }

    void setSelection(DataSource* source, std::unique_ptr<DataSource> own = {})
    {
        DataSource* old = selection;
        const std::unique_ptr<DataSource> oldOwn = std::move(ownSelection);
        selection = source;
        ownSelection = std::move(own);
        ++generation;
        ++changes;
        if (old && old != source)
            old->cancel();
        if (!closing) {
            for (const Device& device : devices)
                device.announce(*this, device.resource);
        }
    }
    // A source that goes away takes the selection with it.
    void forget(DataSource* source)
    {
        if (selection != source)
            return;
        selection = nullptr;
        setSelection(nullptr);
    }

    void startWrite(int fd, const QByteArray& data)
    {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        Write& w = writes.emplace_back(Write{this, fd, data});
        w.source = wl_event_loop_add_fd(loop, fd, WL_EVENT_WRITABLE, &Impl::onWritable, &w);
    }
    void endWrite(Write& w)
    {
        wl_event_source_remove(w.source);
        close(w.fd);
        writes.remove_if([&](const Write& x) { return &x == &w; });
    }
    static int onWritable(int, uint32_t, void* data)
    {
        auto& w = *static_cast<Write*>(data);
        while (w.done < w.data.size()) {
            const ssize_t n = ::write(w.fd, w.data.constData() + w.done, static_cast<size_t>(w.data.size() - w.done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno == EAGAIN)
                return 0;
            if (n <= 0)
                break;  // the reader went away
            w.done += n;
        }
        w.impl->endWrite(w);
        return 0;
    }
};

namespace {
using Impl = FakeCompositor::Impl;

struct OwnSource final : DataSource {
    OwnSource(Impl& impl, const FakeCompositor::Content& content) : impl(impl), content(content)
    {
        for (const auto& [type, bytes] : content)
            types << type;
    }
    QString owner() const override { return QStringLiteral("compositor"); }
    void send(const char* mimeType, int fd) override
    {
        for (const auto& [type, bytes] : content) {
            if (type == mimeType)
                return impl.startWrite(fd, bytes);
        }
        close(fd);
    }
    void cancel() override {}
    Impl& impl;
    FakeCompositor::Content content;
};

void destroyResource(wl_client*, wl_resource* resource) { wl_resource_destroy(resource); }

// The generated server-side names of one data-control protocol (see DataControlClipboard.cpp: the two
// differ only in their prefix).
#define FAKE_DATA_CONTROL_PROTOCOL(Name, prefix, PREFIX)                                                             \
    struct Name {                                                                                                    \
        static constexpr const char* name = #prefix "_manager_v1";                                                   \
        static constexpr const wl_interface* managerInterface = &prefix##_manager_v1_interface;                      \
        static constexpr const wl_interface* deviceInterface = &prefix##_device_v1_interface;                        \
        static constexpr const wl_interface* sourceInterface = &prefix##_source_v1_interface;                        \
        static constexpr const wl_interface* offerInterface = &prefix##_offer_v1_interface;                          \
        using ManagerRequests = struct prefix##_manager_v1_interface;                                                \
        using DeviceRequests = struct prefix##_device_v1_interface;                                                  \
        using SourceRequests = struct prefix##_source_v1_interface;                                                  \
        using OfferRequests = struct prefix##_offer_v1_interface;                                                    \
        static constexpr auto sendDataOffer = &prefix##_device_v1_send_data_offer;                                   \
        static constexpr auto sendSelection = &prefix##_device_v1_send_selection;                                    \
        static constexpr auto sendOffer = &prefix##_offer_v1_send_offer;                                             \
        static constexpr auto sendSend = &prefix##_source_v1_send_send;                                              \
        static constexpr auto sendCancelled = &prefix##_source_v1_send_cancelled;                                    \
        static constexpr uint32_t usedSource = PREFIX##_DEVICE_V1_ERROR_USED_SOURCE;                                 \
        static constexpr uint32_t invalidOffer = PREFIX##_SOURCE_V1_ERROR_INVALID_OFFER;                             \
    };
FAKE_DATA_CONTROL_PROTOCOL(ExtDataControl, ext_data_control, EXT_DATA_CONTROL)
FAKE_DATA_CONTROL_PROTOCOL(WlrDataControl, zwlr_data_control, ZWLR_DATA_CONTROL)
#undef FAKE_DATA_CONTROL_PROTOCOL

// One data-control protocol served over the compositor's selection.
template <typename P>
struct DataControlGlobal {
    struct ClientSource final : DataSource {
        ClientSource(Impl& impl, wl_resource* resource) : impl(impl), resource(resource) {}
        QString owner() const override { return QString::fromLatin1(P::name); }
        void send(const char* mimeType, int fd) override
        {
            P::sendSend(resource, mimeType, fd);  // the event carries a copy of the descriptor
            close(fd);
        }
        void cancel() override { P::sendCancelled(resource); }
        Impl& impl;
        wl_resource* resource;
        bool used = false;
    };
    struct Offer {
        Impl& impl;
        unsigned generation;
    };

    static Impl& implOf(wl_resource* resource) { return *static_cast<Impl*>(wl_resource_get_user_data(resource)); }

    static void bind(wl_client* client, void* data, uint32_t version, uint32_t id)
    {
        static const typename P::ManagerRequests requests{createDataSource, getDataDevice, destroyResource};
        wl_resource* manager = wl_resource_create(client, P::managerInterface, static_cast<int>(version), id);
        if (!manager)
            return wl_client_post_no_memory(client);
        wl_resource_set_implementation(manager, &requests, data, nullptr);
    }

    static void createDataSource(wl_client* client, wl_resource* manager, uint32_t id)
    {
        static const typename P::SourceRequests requests{
            [](wl_client*, wl_resource* resource, const char* mimeType) {
                auto* source = static_cast<ClientSource*>(wl_resource_get_user_data(resource));
                if (source->used)
                    return wl_resource_post_error(resource, P::invalidOffer, "offer after set_selection");
                source->types << QByteArray(mimeType);
            },
            destroyResource};
        wl_resource* resource = wl_resource_create(client, P::sourceInterface, wl_resource_get_version(manager), id);
        if (!resource)
            return wl_client_post_no_memory(client);
        wl_resource_set_implementation(resource, &requests, new ClientSource(implOf(manager), resource), [](wl_resource* r) {
            auto* source = static_cast<ClientSource*>(wl_resource_get_user_data(r));
            source->impl.forget(source);
            delete source;
        });
    }

    static void getDataDevice(wl_client* client, wl_resource* manager, uint32_t id, wl_resource*)
    {
        static const typename P::DeviceRequests requests{setSelection, destroyResource,
                                                         [](wl_client*, wl_resource*, wl_resource*) {}};  // no primary selection
        wl_resource* device = wl_resource_create(client, P::deviceInterface, wl_resource_get_version(manager), id);
        if (!device)
            return wl_client_post_no_memory(client);
        Impl& impl = implOf(manager);
        wl_resource_set_implementation(device, &requests, &impl, [](wl_resource* r) {
            std::erase_if(implOf(r).devices, [r](const Impl::Device& d) { return d.resource == r; });
        });
        impl.devices.push_back({device, announce});
        announce(impl, device);
    }

    static void setSelection(wl_client*, wl_resource* device, wl_resource* sourceResource)
    {
        auto* source = sourceResource ? static_cast<ClientSource*>(wl_resource_get_user_data(sourceResource)) : nullptr;
        if (source && source->used)
            return wl_resource_post_error(device, P::usedSource, "the source was set before");
        if (source)
            source->used = true;
        implOf(device).setSelection(source);
    }

    // Tells a device of the current selection: a new offer with its types, then the selection.
    static void announce(Impl& impl, wl_resource* device)
    {
        if (!impl.selection)
            return P::sendSelection(device, nullptr);
        static const typename P::OfferRequests requests{
            [](wl_client*, wl_resource* resource, const char* mimeType, int32_t fd) {
                auto* offer = static_cast<Offer*>(wl_resource_get_user_data(resource));
                if (offer->generation == offer->impl.generation && offer->impl.selection)
                    offer->impl.selection->send(mimeType, fd);
                else
                    close(fd);
            },
            destroyResource};
        wl_resource* offer = wl_resource_create(wl_resource_get_client(device), P::offerInterface, wl_resource_get_version(device), 0);
        if (!offer)
            return wl_resource_post_no_memory(device);
        wl_resource_set_implementation(offer, &requests, new Offer{impl, impl.generation},
                                       [](wl_resource* r) { delete static_cast<Offer*>(wl_resource_get_user_data(r)); });
        P::sendDataOffer(device, offer);
        for (const QByteArray& type : impl.selection->types)
            P::sendOffer(offer, type.constData());
        P::sendSelection(device, offer);
    }
};

void bindSeat(wl_client* client, void* data, uint32_t version, uint32_t id)
{
    // A seat without devices: asking it for one is the client's mistake.
    const auto noDevice = [](wl_client* client, wl_resource*, uint32_t) {
        wl_client_post_implementation_error(client, "the seat has no pointer, keyboard or touch");
    };
    static const struct wl_seat_interface requests{noDevice, noDevice, noDevice, destroyResource};
    wl_resource* seat = wl_resource_create(client, &wl_seat_interface, static_cast<int>(version), id);
    if (!seat)
        return wl_client_post_no_memory(client);
    wl_resource_set_implementation(seat, &requests, data, nullptr);
    wl_seat_send_capabilities(seat, 0);
    if (version >= WL_SEAT_NAME_SINCE_VERSION)
        wl_seat_send_name(seat, "seat0");
}
}  // namespace

FakeCompositor::FakeCompositor() : impl_(std::make_unique<Impl>()) {}

FakeCompositor::~FakeCompositor() { stop(); }

QString FakeCompositor::start(Protocols protocols)
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
    if (!d.display)
        return QStringLiteral("wl_display_create failed");
    d.loop = wl_display_get_event_loop(d.display);
    const char* socket = wl_display_add_socket_auto(d.display);
    d.wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!socket || d.wakeFd < 0) {
        stop();
        return QStringLiteral("cannot listen in ") + runtime;
    }
    d.socket = QString::fromLocal8Bit(socket);
    d.wakeSource = wl_event_loop_add_fd(d.loop, d.wakeFd, WL_EVENT_READABLE, &Impl::onWake, &d);
    wl_global_create(d.display, &wl_seat_interface, 5, &d, bindSeat);
    if (protocols.ext)
        wl_global_create(d.display, ExtDataControl::managerInterface, 1, &d, DataControlGlobal<ExtDataControl>::bind);
    if (protocols.wlr)
        wl_global_create(d.display, WlrDataControl::managerInterface, 1, &d, DataControlGlobal<WlrDataControl>::bind);
    d.thread = std::thread([&d] {
        while (!d.quit) {
            wl_display_flush_clients(d.display);
            wl_event_loop_dispatch(d.loop, -1);
        }
    });
    return {};
}

void FakeCompositor::stop()
{
    Impl& d = *impl_;
    if (d.thread.joinable()) {
        d.run([&d] { d.quit = true; });
        d.thread.join();
    }
    if (!d.display)
        return;
    d.closing = true;
    wl_display_destroy_clients(d.display);
    while (!d.writes.empty())
        d.endWrite(d.writes.front());
    d.selection = nullptr;
    d.ownSelection.reset();
    if (d.wakeSource)
        wl_event_source_remove(d.wakeSource);
    if (d.wakeFd >= 0)
        close(d.wakeFd);
    wl_display_destroy(d.display);
    impl_ = std::make_unique<Impl>();
}

QString FakeCompositor::waylandDisplay() const { return impl_->socket; }

void FakeCompositor::copy(const Content& content)
{
    Impl& d = *impl_;
    d.run([&] {
        auto own = std::make_unique<OwnSource>(d, content);
        DataSource* source = own.get();
        d.setSelection(source, std::move(own));
    });
}

QList<QByteArray> FakeCompositor::selectionTypes()
{
    Impl& d = *impl_;
    return d.run([&] { return d.selection ? d.selection->types : QList<QByteArray>(); });
}

QString FakeCompositor::selectionOwner()
{
    Impl& d = *impl_;
    return d.run([&] { return d.selection ? d.selection->owner() : QString(); });
}

int FakeCompositor::selectionChanges()
{
    Impl& d = *impl_;
    return d.run([&] { return d.changes; });
}

std::optional<QByteArray> FakeCompositor::paste(const QByteArray& mimeType, int timeoutMs)
{
    Impl& d = *impl_;
    const int fd = d.run([&] {
        int fds[2];
        if (!d.selection || pipe2(fds, O_CLOEXEC) != 0)
            return -1;
        d.selection->send(mimeType.constData(), fds[1]);
        return fds[0];
    });
    if (fd < 0)
        return std::nullopt;
    // The owner may be served by this thread's event loop: read without blocking it.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    QByteArray out;
    bool closed = false, failed = false;
    TestSupport::waitUntil([&] {
        char buf[65536];
        for (;;) {
            const ssize_t n = ::read(fd, buf, sizeof buf);
            if (n > 0) {
                out.append(buf, n);
                continue;
            }
            closed = n == 0;
            failed = n < 0 && errno != EAGAIN && errno != EINTR;
            return closed || failed;
        }
    }, timeoutMs);
    close(fd);
    if (!closed)
        return std::nullopt;
    return out;
}
