#include "keyboard/wayland/DataControlClipboard.h"

#include "keyboard/wayland/WaylandConnection.h"

#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <QTimer>

#include <wayland-client.h>

#include <csignal>
#include <fcntl.h>
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
}  // namespace

std::unique_ptr<DataControlClipboard> DataControlClipboard::create(WaylandConnection& connection)
{
    if (!connection.dataControl() || !connection.seat())
        return nullptr;
    // A reader that goes away before the answer is complete must not end Tolvane.
    std::signal(SIGPIPE, SIG_IGN);
    auto* device = zwlr_data_control_manager_v1_get_data_device(connection.dataControl(), connection.seat());
    std::unique_ptr<DataControlClipboard> clipboard(new DataControlClipboard(connection, device));
    static const zwlr_data_control_device_v1_listener listener{
        [](void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
            auto* self = static_cast<DataControlClipboard*>(data);
            self->offers_[offer] = {};
            static const zwlr_data_control_offer_v1_listener offerListener{
                [](void* data, zwlr_data_control_offer_v1* offer, const char* mimeType) {
                    static_cast<DataControlClipboard*>(data)->offers_[offer].types << QByteArray(mimeType);
                }};
            zwlr_data_control_offer_v1_add_listener(offer, &offerListener, self);
        },
        [](void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) {
            auto* self = static_cast<DataControlClipboard*>(data);
            if (self->selection_ && self->selection_ != offer) {
                self->offers_.erase(self->selection_);
                zwlr_data_control_offer_v1_destroy(self->selection_);
            }
            self->selection_ = offer;
        },
        [](void* data, zwlr_data_control_device_v1*) {
            // The seat is gone; the device is of no more use.
            auto* self = static_cast<DataControlClipboard*>(data);
            zwlr_data_control_device_v1_destroy(self->device_);
            self->device_ = nullptr;
        },
        [](void*, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1*) {}};
    zwlr_data_control_device_v1_add_listener(device, &listener, clipboard.get());
    if (!connection.roundtrip())
        return nullptr;
    return clipboard;
}

DataControlClipboard::DataControlClipboard(WaylandConnection& connection, zwlr_data_control_device_v1* device)
    : connection_(connection), device_(device)
{
    timer_ = new QTimer(this);
    timer_->setSingleShot(true);
    connect(timer_, &QTimer::timeout, this, &DataControlClipboard::onTimer);
}

DataControlClipboard::~DataControlClipboard()
{
    if (connection_.broken())
        return;
    for (auto& [offer, o] : offers_)
        zwlr_data_control_offer_v1_destroy(offer);
    for (auto& [source, content] : sources_)
        zwlr_data_control_source_v1_destroy(source);
    if (device_)
        zwlr_data_control_device_v1_destroy(device_);
    connection_.flush();
}

ClipboardContent DataControlClipboard::read(zwlr_data_control_offer_v1* offer)
{
    ClipboardContent content;
    const auto it = offers_.find(offer);
    if (!offer || it == offers_.end())
        return content;
    for (const QByteArray& type : ClipboardContent::fetchOrder(it->second.types)) {
        const qint64 budget = content.budgetFor(type);
        if (budget == 0) {
            content.overflow();
            continue;
        }
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            break;
        zwlr_data_control_offer_v1_receive(offer, type.constData(), fds[1]);
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

zwlr_data_control_source_v1* DataControlClipboard::offerContent(const ClipboardContent& content)
{
    auto* source = zwlr_data_control_manager_v1_create_data_source(connection_.dataControl());
    static const zwlr_data_control_source_v1_listener listener{
        [](void* data, zwlr_data_control_source_v1* source, const char* mimeType, int32_t fd) {
            static_cast<DataControlClipboard*>(data)->onSend(source, mimeType, fd);
        },
        [](void* data, zwlr_data_control_source_v1* source) { static_cast<DataControlClipboard*>(data)->onCancelled(source); }};
    zwlr_data_control_source_v1_add_listener(source, &listener, this);
    for (const ClipboardItem& item : content.items())
        zwlr_data_control_source_v1_offer(source, item.mimeType.constData());
    sources_[source] = content;
    zwlr_data_control_device_v1_set_selection(device_, source);
    return source;
}

bool DataControlClipboard::setForPaste(const QString& text, std::optional<ClipboardContent> ownContent)
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

void DataControlClipboard::keystrokeSent()
{
    restore_.keystrokeSent(Clock::now());
    schedule();
}

void DataControlClipboard::onSend(zwlr_data_control_source_v1* source, const char* mimeType, int fd)
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

void DataControlClipboard::onCancelled(zwlr_data_control_source_v1* source)
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
    zwlr_data_control_source_v1_destroy(source);
}

void DataControlClipboard::schedule()
{
    const auto at = restore_.wakeAt();
    if (!at)
        return;
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(*at - Clock::now()).count();
    timer_->start(static_cast<int>(std::max<long long>(0, wait)));
}

void DataControlClipboard::onTimer()
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
        zwlr_data_control_device_v1_set_selection(device_, nullptr);  // the dictation does not linger
    else
        restoredSource_ = offerContent(previous);
    connection_.flush();
}
