#include "keyboard/ClipboardContent.h"

#include <QBuffer>
#include <QClipboard>
#include <QGuiApplication>
#include <QImage>
#include <QMimeData>

#include <algorithm>

bool ClipboardContent::isPlainText(const QByteArray& mimeType)
{
    static const QList<QByteArray> names{"UTF8_STRING", "STRING", "TEXT", "COMPOUND_TEXT", "text/plain"};
    return names.contains(mimeType) || mimeType.startsWith("text/plain;");
}

bool ClipboardContent::isRequest(const QByteArray& mimeType)
{
    static const QList<QByteArray> names{"TARGETS", "MULTIPLE", "TIMESTAMP", "SAVE_TARGETS", "DELETE",
                                         "INSERT_SELECTION", "INSERT_PROPERTY", "LENGTH"};
    return names.contains(mimeType);
}

QList<QByteArray> ClipboardContent::fetchOrder(const QList<QByteArray>& offered)
{
    QList<QByteArray> out;
    for (const QByteArray& t : offered)
        if (!isRequest(t) && !t.isEmpty() && !out.contains(t))
            out << t;
    std::stable_partition(out.begin(), out.end(), isPlainText);
    return out;
}

qint64 ClipboardContent::size() const
{
    qint64 n = 0;
    for (const ClipboardItem& i : items_)
        n += i.data.size();
    return n;
}

qint64 ClipboardContent::budgetFor(const QByteArray& mimeType) const
{
    if (isPlainText(mimeType))
        return -1;
    return textOnly_ ? 0 : std::max<qint64>(0, sizeCap - size());
}

void ClipboardContent::overflow()
{
    textOnly_ = true;
    items_.removeIf([](const ClipboardItem& i) { return !isPlainText(i.mimeType); });
}

void ClipboardContent::add(ClipboardItem item)
{
    const qint64 budget = budgetFor(item.mimeType);
    if (budget >= 0 && (textOnly_ || item.data.size() > budget)) {
        overflow();
        return;
    }
    items_.removeIf([&](const ClipboardItem& i) { return i.mimeType == item.mimeType; });
    items_ << std::move(item);
}

const ClipboardItem* ClipboardContent::find(const QByteArray& mimeType) const
{
    const auto it = std::find_if(items_.begin(), items_.end(), [&](const ClipboardItem& i) { return i.mimeType == mimeType; });
    return it == items_.end() ? nullptr : &*it;
}

ClipboardContent ClipboardContent::dictation(const QString& text)
{
    ClipboardContent c;
    const QByteArray utf8 = text.toUtf8();
    for (const char* name : {"UTF8_STRING", "text/plain;charset=utf-8", "text/plain"})
        c.items_ << ClipboardItem{name, utf8, {}, 8};
    c.items_ << ClipboardItem{"TEXT", utf8, "UTF8_STRING", 8};
    // STRING is Latin-1: offered only when the text has nothing else.
    if (std::all_of(text.begin(), text.end(), [](QChar ch) { return ch.unicode() < 0x100; }))
        c.items_ << ClipboardItem{"STRING", text.toLatin1(), {}, 8};
    c.items_ << ClipboardItem{transientHintType, "secret", {}, 8};
    return c;
}

ClipboardContent ClipboardContent::fromMimeData(const QMimeData& data)
{
    ClipboardContent c;
    const auto add = [&c](const QByteArray& type, const QByteArray& bytes) { c.add(ClipboardItem{type, bytes, {}, 8}); };
    if (data.hasText()) {
        const QByteArray utf8 = data.text().toUtf8();
        add("UTF8_STRING", utf8);
        add("text/plain;charset=utf-8", utf8);
    }
    for (const QString& format : data.formats()) {
        if (format == QLatin1String("application/x-qt-image")) {
            // Qt's own image format means nothing to other programs: PNG is what they read.
            QByteArray png;
            QBuffer buffer(&png);
            if (buffer.open(QIODevice::WriteOnly) && qvariant_cast<QImage>(data.imageData()).save(&buffer, "PNG"))
                add("image/png", png);
        } else if (!c.find(format.toUtf8())) {
            add(format.toUtf8(), data.data(format));
        }
    }
    return c;
}

std::optional<ClipboardContent> ClipboardContent::ownedByThisProcess()
{
    if (auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        const QClipboard* clipboard = gui->clipboard();
        if (clipboard->ownsClipboard() && clipboard->mimeData())
            return fromMimeData(*clipboard->mimeData());
    }
    return std::nullopt;
}
