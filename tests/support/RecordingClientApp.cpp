// A plain X client with one text field that records what reaches it. Commands arrive on standard
// input, one per line:
//   dump PATH   write {"text", "backspaces", "spaces", "loneAltTaps", "terminalPastes",
//               "lastChangeUs"} to PATH as JSON, then answer "dumped"; lastChangeUs is the
//               monotonic clock (CLOCK_MONOTONIC, microseconds) when the text last changed, so a
//               benchmark can time an arrival without depending on how often it asks
//   clear       empty the field and the counters, answer "cleared"
//   pasteDelay MS  from now on Ctrl+V reads the clipboard MS milliseconds after the key, as a busy
//               application does; answer "delayed"
//   keyDelay MS from now on each key press keeps the client busy for MS milliseconds before the next
//               event is read, as a slow application does; answer "delayed"
//   quit
// It announces "ready WINDOW-ID" once its window is on screen. A lone-Alt tap is an Alt press and
// release with no other key event in between, as this client receives them: what would open a menu.

#include "support/ClientCommands.h"

#include <QAbstractNativeEventFilter>
#include <QApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QKeyEvent>
#include <QPlainTextEdit>
#include <QTextStream>
#include <QThread>
#include <QTimer>

#include <xcb/xcb.h>

namespace {

struct Counters {
    int backspaces = 0;
    int spaces = 0;
    int loneAltTaps = 0;
    int terminalPastes = 0;  // Ctrl+Shift+V
    qint64 lastChangeUs = 0;
};

constexpr unsigned altLeftKeycode = 64;
constexpr unsigned altRightKeycode = 108;

class KeyWatcher final : public QAbstractNativeEventFilter {
public:
    explicit KeyWatcher(Counters& c) : c_(c) {}
    int keyDelayMs = 0;
    bool nativeEventFilter(const QByteArray& type, void* message, qintptr*) override
    {
        if (type != "xcb_generic_event_t")
            return false;
        const auto* ev = static_cast<const xcb_generic_event_t*>(message);
        const uint8_t kind = ev->response_type & 0x7f;
        if (kind != XCB_KEY_PRESS && kind != XCB_KEY_RELEASE)
            return false;
        const auto* key = static_cast<const xcb_key_press_event_t*>(message);
        const bool isAlt = key->detail == altLeftKeycode || key->detail == altRightKeycode;
        if (kind == XCB_KEY_PRESS) {
            if (keyDelayMs > 0)
                QThread::msleep(static_cast<unsigned long>(keyDelayMs));
            if (isAlt && altAlone_ == 0)
                altAlone_ = key->detail;
            else
                altAlone_ = 0;
        } else if (isAlt && altAlone_ == key->detail) {
            ++c_.loneAltTaps;
            altAlone_ = 0;
        } else {
            altAlone_ = 0;
        }
        return false;
    }

private:
    Counters& c_;
    unsigned altAlone_ = 0;
};

class Field final : public QPlainTextEdit {
public:
    explicit Field(Counters& c) : c_(c) {}
    int pasteDelayMs = 0;

protected:
    void keyPressEvent(QKeyEvent* e) override
    {
        if (e->key() == Qt::Key_Backspace)
            ++c_.backspaces;
        if (e->key() == Qt::Key_Space)
            ++c_.spaces;
        if (e->key() == Qt::Key_V && e->modifiers() == (Qt::ControlModifier | Qt::ShiftModifier))
            ++c_.terminalPastes;
        if (pasteDelayMs > 0 && e->matches(QKeySequence::Paste)) {
            QTimer::singleShot(pasteDelayMs, this, &QPlainTextEdit::paste);
            return;
        }
        QPlainTextEdit::keyPressEvent(e);
    }

private:
    Counters& c_;
};

}  // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    Counters counters;
    KeyWatcher watcher(counters);
    app.installNativeEventFilter(&watcher);

    Field field(counters);
    field.setTabChangesFocus(false);
    field.resize(600, 400);
    field.show();
    field.activateWindow();
    field.setFocus();
    QObject::connect(&field, &QPlainTextEdit::textChanged, &field, [&counters] { counters.lastChangeUs = ClientCommands::monotonicMicroseconds(); });
    QTimer::singleShot(0, &field, [&field] {
        ClientCommands::answer(QStringLiteral("ready %1").arg(field.winId()).toUtf8());
    });

    ClientCommands::onEachLine(app, [&](const QByteArray& bytes) {
        const QString line = QString::fromUtf8(bytes);
        if (line.startsWith(QLatin1String("dump "))) {
            const QJsonObject o{{QStringLiteral("text"), field.toPlainText()},
                                {QStringLiteral("backspaces"), counters.backspaces},
                                {QStringLiteral("spaces"), counters.spaces},
                                {QStringLiteral("loneAltTaps"), counters.loneAltTaps},
                                {QStringLiteral("terminalPastes"), counters.terminalPastes},
                                {QStringLiteral("lastChangeUs"), counters.lastChangeUs}};
            QFile f(line.mid(5));
            if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
                f.write(QJsonDocument(o).toJson(QJsonDocument::Compact));
            f.close();
            ClientCommands::answer("dumped");
        } else if (line == QLatin1String("clear")) {
            field.clear();
            counters = Counters();
            ClientCommands::answer("cleared");
        } else if (line.startsWith(QLatin1String("pasteDelay "))) {
            field.pasteDelayMs = line.mid(11).toInt();
            ClientCommands::answer("delayed");
        } else if (line.startsWith(QLatin1String("keyDelay "))) {
            watcher.keyDelayMs = line.mid(9).toInt();
            ClientCommands::answer("delayed");
        } else if (line == QLatin1String("quit")) {
            app.quit();
        }
    });
    return app.exec();
}
