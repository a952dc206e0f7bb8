#include "ui/settings/HotkeyTester.h"

#include "ui/widgets/Theme.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QTimer>

HotkeyTester::HotkeyTester(ActivationKey key, QWidget* parent)
    : QWidget(parent), key_(key), icon_(new QLabel(this)), label_(new QLabel(this))
{
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(8);
    row->addWidget(icon_);
    row->addWidget(label_);
    row->addStretch(1);
    label_->setFont(Theme::font(Theme::TextStyle::callout));
    refresh();
}

HotkeyTester::~HotkeyTester() { removeMonitor(); }

void HotkeyTester::setKey(ActivationKey key)
{
    key_ = key;
    setDetected(false);
    refresh();
    if (isVisible())
        addMonitor();
}

QString HotkeyTester::text() const { return label_->text(); }

void HotkeyTester::addMonitor()
{
    removeMonitor();
    qApp->installEventFilter(this);
    monitoring_ = true;
}

void HotkeyTester::removeMonitor()
{
    if (!monitoring_)
        return;
    qApp->removeEventFilter(this);
    monitoring_ = false;
}

bool HotkeyTester::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::KeyPress || event->type() == QEvent::KeyRelease) {
        // Matched by the X keycode only, so pressing and releasing both count. Keycode 0 means
        // the key has none on this display (Fn) and never matches.
        const auto* key = static_cast<QKeyEvent*>(event);
        const unsigned code = ActivationKeys::keyCode(key_);
        if (code != 0 && key->nativeScanCode() == code) {
            setDetected(true);
            QTimer::singleShot(detectedMilliseconds, this, [this] { setDetected(false); });
        }
    }
    return QWidget::eventFilter(watched, event);  // never consumes the event
}

void HotkeyTester::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    addMonitor();
}

void HotkeyTester::hideEvent(QHideEvent* event)
{
    removeMonitor();
    QWidget::hideEvent(event);
}

void HotkeyTester::setDetected(bool on)
{
    if (detected_ == on)
        return;
    detected_ = on;
    refresh();
    Q_EMIT detectedChanged(on);
}

void HotkeyTester::refresh()
{
    const QString label = ActivationKeys::label(key_);
    const qreal dpr = devicePixelRatioF();
    if (detected_) {
        icon_->setPixmap(Theme::symbolPixmap(Theme::Symbol::checkmarkCircle, brandGreen(), 16, dpr));
        label_->setText(QStringLiteral("Detected — ") + label + QStringLiteral(" works!"));
        Theme::setTextColor(label_, Theme::primaryText());
    } else {
        icon_->setPixmap(Theme::symbolPixmap(Theme::Symbol::keyboard, Theme::secondaryText(), 16, dpr));
        label_->setText(QStringLiteral("Press ") + label + QStringLiteral(" to test"));
        Theme::setTextColor(label_, Theme::secondaryText());
    }
}
