#include "keyboard/wayland/DataControlClipboard.h"

#include "keyboard/ClipboardRestore.h"
#include "keyboard/wayland/WaylandConnection.h"

#include "ext-data-control-v1-client-protocol.h"
#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <QTimer>

#include <wayland-client.h>

#include <csignal>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {
using Clock = ClipboardRestore::Clock;

// Reads until the writer closes, `limit` bytes are exceeded (-1: no limit) or time runs out.
std::optional<QByteArray> readAll(int fd, qint64 limit, int timeoutMs)
{
    QByteArray out;
    const auto until = Clock::now() + std::chrono::milliseconds(timeoutMs);
    char buf[65536];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
            return std::nullopt;
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n == 0)
            return out;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return std::nullopt;
        }
        out.append(buf, n);
        if (limit >= 0 && out.size() > limit)
            return std::nullopt;
    }
}

// The generated names of one data-control protocol. ext_data_control_v1 was standardised from
// wlr_data_control_unstable_v1 with the same messages in the same order: only the prefix differs.
#define TOLVANE_DATA_CONTROL_PROTOCOL(Name, prefix, connectionGetter)                                                  \
    struct Name {                                                                                                      \
        using Manager = prefix##_manager_v1;                                                                           \
        using Device = prefix##_device_v1;                                                                             \
        using Source = prefix##_source_v1;                                                                             \
        using Offer = prefix##_offer_v1;                                                                               \
        using DeviceListener = prefix##_device_v1_listener;                                                            \
        using SourceListener = prefix##_source_v1_listener;                                                            \
        using OfferListener = prefix##_offer_v1_listener;                                                              \
        static constexpr const char* name = #prefix "_manager_v1";                                                     \
        static constexpr auto manager = &WaylandConnection::connectionGetter;                                          \
        static constexpr auto getDataDevice = &prefix##_manager_v1_get_data_device;                                    \
        static constexpr auto createDataSource = &prefix##_manager_v1_create_data_source;                              \
        static constexpr auto addDeviceListener = &prefix##_device_v1_add_listener;                                    \
        static constexpr auto setSelection = &prefix##_device_v1_set_selection;                                        \
        static constexpr auto destroyDevice = &prefix##_device_v1_destroy;                                             \
        static constexpr auto addSourceListener = &prefix##_source_v1_add_listener;                                    \
        static constexpr auto offer = &prefix##_source_v1_offer;                                                       \
        static constexpr auto destroySource = &prefix##_source_v1_destroy;                                             \
        static constexpr auto addOfferListener = &prefix##_offer_v1_add_listener;                                      \
        static constexpr auto receive = &prefix##_offer_v1_receive;                                                    \
        static constexpr auto destroyOffer = &prefix##_offer_v1_destroy;                                               \
    };
TOLVANE_DATA_CONTROL_PROTOCOL(ExtDataControl, ext_data_control, extDataControl)
TOLVANE_DATA_CONTROL_PROTOCOL(WlrDataControl, zwlr_data_control, wlrDataControl)
#undef TOLVANE_DATA_CONTROL_PROTOCOL

template <typename P>
class DataControl final : public DataControlClipboard {
public:
    using Device = typename P::Device;
    using Source = typename P::Source;
    using Offer = typename P::Offer;

    static std::unique_ptr<DataControlClipboard> create(WaylandConnection& connection);
    ~DataControl() override;

    const char* protocol() const override { return P::name; }
    bool setForPaste(const QString& text, std::optional<ClipboardContent> ownContent) override;
    void keystrokeSent() override;

private:
    DataControl(WaylandConnection& connection, Device* device);
    ClipboardContent read(Offer* offer);
    Source* offerContent(const ClipboardContent& content);
    void onSend(Source* source, const char* mimeType, int fd);
    void onCancelled(Source* source);
    void schedule();
    void onTimer();

    WaylandConnection& connection_;
    Device* device_;
    std::map<Offer*, QList<QByteArray>> offers_;  // the MIME types each offer announced
    Offer* selection_ = nullptr;
    std::map<Source*, ClipboardContent> sources_;
    Source* pasteSource_ = nullptr;
    Source* restoredSource_ = nullptr;  // the user's content, served by us
    ClipboardRestore restore_;
    QTimer* timer_ = nullptr;
};

template <typename P>
std::unique_ptr<DataControlClipboard> DataControl<P>::create(WaylandConnection& connection)
{
    auto* manager = (connection.*P::manager)();
    if (!manager || !connection.seat())
        return nullptr;
    // A reader that goes away before the answer is complete must not end Tolvane.
    std::signal(SIGPIPE, SIG_IGN);
    Device* device = P::getDataDevice(manager, connection.seat());
    std::unique_ptr<DataControl> clipboard(new DataControl(connection, device));
    static const typename P::DeviceListener listener{
        [](void* data, Device*, Offer* offer) {
            auto* self = static_cast<DataControl*>(data);
            self->offers_[offer] = {};
            static const typename P::OfferListener offerListener{[](void* data, Offer* offer, const char* mimeType) {
                static_cast<DataControl*>(data)->offers_[offer] << QByteArray(mimeType);
            }};
            P::addOfferListener(offer, &offerListener, self);
        },
        [](void* data, Device*, Offer* offer) {
            auto* self = static_cast<DataControl*>(data);
            if (self->selection_ && self->selection_ != offer) {
                self->offers_.erase(self->selection_);
                P::destroyOffer(self->selection_);
            }
            self->selection_ = offer;
        },
        [](void* data, Device*) {
            // The seat is gone; the device is of no more use.
            auto* self = static_cast<DataControl*>(data);
            P::destroyDevice(self->device_);
            self->device_ = nullptr;
        },
        [](void*, Device*, Offer*) {}};
    P::addDeviceListener(device, &listener, clipboard.get());
    if (!connection.roundtrip())
        return nullptr;
    return clipboard;
}

template <typename P>
DataControl<P>::DataControl(WaylandConnection& connection, Device* device) : connection_(connection), device_(device)
{
    timer_ = new QTimer(this);
    timer_->setSingleShot(true);
    connect(timer_, &QTimer::timeout, this, &DataControl::onTimer);
}

template <typename P>
DataControl<P>::~DataControl()
{
    // Also when the compositor is gone: the proxies are freed, and nothing is sent.
    for (auto& [offer, types] : offers_)
        P::destroyOffer(offer);
    for (auto& [source, content] : sources_)
        P::destroySource(source);
    if (device_)
        P::destroyDevice(device_);
    connection_.flush();
}

template <typename P>
ClipboardContent DataControl<P>::read(Offer* offer)
{
    ClipboardContent content;
    const auto it = offers_.find(offer);
    if (!offer || it == offers_.end())
        return content;
    for (const QByteArray& type : ClipboardContent::fetchOrder(it->second)) {
        const qint64 budget = content.budgetFor(type);
        if (budget == 0) {
            content.overflow();
            continue;
        }
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            break;
        P::receive(offer, type.constData(), fds[1]);
        close(fds[1]);
        connection_.flush();
        const auto data = readAll(fds[0], budget, readTimeoutMs);
        close(fds[0]);
        if (data)
            content.add(ClipboardItem{type, *data, {}, 8});
        else if (budget >= 0)
            content.overflow();  // too large, or its owner did not answer in time
    }
    return content;
}

template <typename P>
typename P::Source* DataControl<P>::offerContent(const ClipboardContent& content)
{
    Source* source = P::createDataSource((connection_.*P::manager)());
    static const typename P::SourceListener listener{
        [](void* data, Source* source, const char* mimeType, int32_t fd) { static_cast<DataControl*>(data)->onSend(source, mimeType, fd); },
        [](void* data, Source* source) { static_cast<DataControl*>(data)->onCancelled(source); }};
    P::addSourceListener(source, &listener, this);
    for (const ClipboardItem& item : content.items())
        P::offer(source, item.mimeType.constData());
    sources_[source] = content;
    P::setSelection(device_, source);
    return source;
}

template <typename P>
bool DataControl<P>::setForPaste(const QString& text, std::optional<ClipboardContent> ownContent)
{
    if (!device_ || connection_.broken())
        return false;
    if (restore_.needsSnapshot()) {
        ClipboardContent previous;
        if (ownContent)
            previous = std::move(*ownContent);
        else if (restoredSource_)
            previous = sources_[restoredSource_];  // served by us: asking would wait on ourselves
        else
            previous = read(selection_);
        restore_.dictationSet(std::move(previous));
    } else {
        restore_.dictationSet({});
    }
    timer_->stop();
    restoredSource_ = nullptr;
    pasteSource_ = offerContent(ClipboardContent::dictation(text));
    // The selection must be in place before the keystroke, which may travel another way (uinput).
    return connection_.roundtrip();
}

template <typename P>
void DataControl<P>::keystrokeSent()
{
    restore_.keystrokeSent(Clock::now());
    schedule();
}

template <typename P>
void DataControl<P>::onSend(Source* source, const char* mimeType, int fd)
{
    const auto it = sources_.find(source);
    const ClipboardItem* item = it == sources_.end() ? nullptr : it->second.find(mimeType);
    if (!item) {
        close(fd);
        return;
    }
    std::thread([fd, data = item->data] {
        qsizetype done = 0;
        while (done < data.size()) {
            const ssize_t n = write(fd, data.constData() + done, static_cast<size_t>(data.size() - done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            done += n;
        }
        close(fd);
    }).detach();
    if (source == pasteSource_) {
        restore_.requestAnswered(mimeType, Clock::now());
        schedule();
    }
}

template <typename P>
void DataControl<P>::onCancelled(Source* source)
{
    // Someone else owns the selection now (or one of ours replaced it).
    if (source == pasteSource_) {
        restore_.ownerChanged();
        timer_->stop();
        pasteSource_ = nullptr;
    }
    if (source == restoredSource_)
        restoredSource_ = nullptr;
    sources_.erase(source);
    P::destroySource(source);
}

template <typename P>
void DataControl<P>::schedule()
{
    const auto at = restore_.wakeAt();
    if (!at)
        return;
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(*at - Clock::now()).count();
    timer_->start(static_cast<int>(std::max<long long>(0, wait)));
}

template <typename P>
void DataControl<P>::onTimer()
{
    if (restore_.due(Clock::now()) == ClipboardRestore::Due::notYet) {
        schedule();
        return;
    }
    const ClipboardContent previous = restore_.take();
    pasteSource_ = nullptr;  // its cancellation is ours
    if (!device_ || connection_.broken())
        return;
    if (previous.isEmpty())
        P::setSelection(device_, nullptr);  // the dictation does not linger
    else
        restoredSource_ = offerContent(previous);
    connection_.flush();
}
}  // namespace

std::unique_ptr<DataControlClipboard> DataControlClipboard::create(WaylandConnection& connection)
{
    // The standard protocol first: it is the maintained one.
    if (auto clipboard = DataControl<ExtDataControl>::create(connection))
        return clipboard;
    return DataControl<WlrDataControl>::create(connection);
}
