#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

class QMimeData;

// One format the clipboard offered, with its bytes exactly as its owner gave them.
struct ClipboardItem {
    QByteArray mimeType;  // on X11 the target's name, MIME type or not (UTF8_STRING, image/png)
    QByteArray data;      // 16- and 32-bit units packed as such, in the machine's byte order
    QByteArray encoding;  // X11: the type the owner answered with; empty = same as mimeType
    int unitBits = 8;     // X11: 8, 16 or 32
    bool operator==(const ClipboardItem&) const = default;
};

// What Tolvane keeps of a clipboard while a paste borrows it: every format, as long as they take no
// more than sizeCap bytes together; beyond that only the plain text, which is all a paste used to
// keep. Formats are added as they are fetched, plain text first (fetchOrder), so a fetch can stop at
// the first format that no longer fits.
class ClipboardContent {
public:
    static constexpr qint64 sizeCap = 16 * 1024 * 1024;
    // Marks an entry clipboard managers (Klipper and others) leave out of their history.
    static constexpr char transientHintType[] = "x-kde-passwordManagerHint";

    // The plain-text formats the text's own bytes go under.
    static bool isPlainText(const QByteArray& mimeType);
    // Targets that ask the owner something (TARGETS, MULTIPLE, DELETE…) rather than hold data.
    static bool isRequest(const QByteArray& mimeType);
    // The formats worth fetching, plain text first, otherwise in the order the owner offered them.
    static QList<QByteArray> fetchOrder(const QList<QByteArray>& offered);

    // The bytes `mimeType` may take at most; -1 = any (plain text is always kept).
    qint64 budgetFor(const QByteArray& mimeType) const;
    // Keeps a fetched format, unless it no longer fits: then only plain text is kept from here on.
    void add(ClipboardItem item);
    // A format was too large to fetch at all: from here on only plain text is kept.
    void overflow();

    const QList<ClipboardItem>& items() const { return items_; }
    const ClipboardItem* find(const QByteArray& mimeType) const;
    bool isEmpty() const { return items_.isEmpty(); }
    bool textOnly() const { return textOnly_; }
    qint64 size() const;

    // The dictation as a paste puts it on the clipboard: its text under every plain-text name, and
    // the hint that keeps it out of clipboard managers' history.
    static ClipboardContent dictation(const QString& text);
    // What a clipboard owned by this process's own Qt holds (Qt serves its own requests on the GUI
    // thread, so it is read here rather than asked over the display connection).
    static ClipboardContent fromMimeData(const QMimeData& data);
    // fromMimeData of this process's clipboard when its own Qt owns it; nothing otherwise.
    static std::optional<ClipboardContent> ownedByThisProcess();

private:
    QList<ClipboardItem> items_;
    bool textOnly_ = false;
};
