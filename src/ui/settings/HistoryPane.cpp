#include "ui/settings/HistoryPane.h"

#include "storage/Preferences.h"
#include "ui/widgets/Card.h"
#include "ui/widgets/Theme.h"
#include "ui/widgets/ToggleSwitch.h"

#include <QClipboard>
#include <QDateTime>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QRegularExpression>
#include <QStackedLayout>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

QLabel* textLabel(const QString& text, const QFont& font, const QColor& color)
{
    auto* label = new QLabel(text);
    label->setFont(font);
    Theme::setTextColor(label, color);
    return label;
}

QToolButton* borderlessButton(const QString& text, Theme::Symbol symbol, const QColor& color, const QFont& font)
{
    auto* b = new QToolButton;
    b->setAutoRaise(true);
    b->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    b->setText(text);
    b->setFont(font);
    b->setIcon(Theme::symbolIcon(symbol, color, 14));
    b->setIconSize(QSize(13, 13));
    b->setCursor(Qt::PointingHandCursor);
    Theme::setTextColor(b, color);
    b->setStyleSheet(QStringLiteral("QToolButton { border: none; padding: 1px 2px; }"));
    return b;
}

// The locale's long date without the weekday and with abbreviated month names: "Nov 23, 2026".
QString mediumDateFormat(const QLocale& locale)
{
    QString format = locale.dateFormat(QLocale::LongFormat);
    format.remove(QRegularExpression(QStringLiteral("dddd[,.]?\\s*")));
    format.replace(QStringLiteral("MMMM"), QStringLiteral("MMM"));
    return format.trimmed();
}

}  // namespace

HistoryPane::HistoryPane(SettingsServices services, QWidget* parent)
    : QWidget(parent),
      services_(std::move(services)),
      historyEnabled_(Preferences::shared().historyEnabled()),
      retention_(Preferences::shared().historyRetention())
{
    auto* v = new QVBoxLayout(this);
    v->setContentsMargins(0, 0, 0, 0);
    v->setSpacing(0);

    // Settings card.
    auto* card = new Card(12, 0.1);
    auto* cardLayout = new QVBoxLayout(card);
    cardLayout->setContentsMargins(13, 13, 13, 13);
    cardLayout->setSpacing(10);

    auto* saveRow = new QHBoxLayout;
    auto* saveTexts = new QVBoxLayout;
    saveTexts->setSpacing(1);
    saveTexts->addWidget(textLabel(QStringLiteral("Save transcripts"), Theme::font(Theme::TextStyle::body),
                                   Theme::primaryText()));
    enabledCaption_ = textLabel(QString(), Theme::font(Theme::TextStyle::caption), Theme::secondaryText());
    enabledCaption_->setObjectName(QStringLiteral("historyCaption"));
    saveTexts->addWidget(enabledCaption_);
    saveRow->addLayout(saveTexts);
    saveRow->addStretch(1);
    enabledSwitch_ = new ToggleSwitch;
    enabledSwitch_->setObjectName(QStringLiteral("historyEnabledSwitch"));
    enabledSwitch_->setAccessibleName(QStringLiteral("Save transcripts"));
    enabledSwitch_->setChecked(historyEnabled_);
    saveRow->addWidget(enabledSwitch_);
    cardLayout->addLayout(saveRow);
    connect(enabledSwitch_, &ToggleSwitch::toggled, this, [this](bool on) {
        historyEnabled_ = on;
        Preferences::shared().setHistoryEnabled(on);
        updateSettingsRows();
    });
    cardLayout->addWidget(Theme::makeDivider());

    auto* keepRow = new QHBoxLayout;
    keepRow->addWidget(textLabel(QStringLiteral("Keep most recent"), Theme::font(Theme::TextStyle::body),
                                 Theme::primaryText()));
    keepRow->addStretch(1);
    stepper_ = new QWidget;
    stepper_->setObjectName(QStringLiteral("retentionStepper"));
    auto* stepperLayout = new QHBoxLayout(stepper_);
    stepperLayout->setContentsMargins(0, 0, 0, 0);
    stepperLayout->setSpacing(8);
    retentionValue_ = textLabel(QString(), Theme::font(Theme::TextStyle::body, QFont::Normal, true), Theme::primaryText());
    retentionValue_->setObjectName(QStringLiteral("retentionValue"));
    retentionValue_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    retentionValue_->setMinimumWidth(QFontMetrics(retentionValue_->font()).horizontalAdvance(QStringLiteral("100")));
    stepperLayout->addWidget(retentionValue_);
    auto* buttons = new QWidget;
    buttons->setObjectName(QStringLiteral("stepperButtons"));
    buttons->setStyleSheet(QStringLiteral(
        "#stepperButtons QToolButton { border: 1px solid rgba(128,128,128,0.45); background: palette(button);"
        " min-width: 20px; max-width: 20px; min-height: 18px; max-height: 18px; padding: 0; }"
        "#stepperButtons QToolButton:pressed { background: rgba(128,128,128,0.25); }"
        "#stepperButtons QToolButton:disabled { color: rgba(128,128,128,0.6); }"
        "#retentionDown { border-top-left-radius: 5px; border-bottom-left-radius: 5px; border-right: none; }"
        "#retentionUp { border-top-right-radius: 5px; border-bottom-right-radius: 5px; }"));
    auto* buttonsLayout = new QHBoxLayout(buttons);
    buttonsLayout->setContentsMargins(0, 0, 0, 0);
    buttonsLayout->setSpacing(0);
    auto stepButton = [&](const QString& text, const char* name, int delta) {
        auto* b = new QToolButton;
        b->setObjectName(QString::fromLatin1(name));
        b->setText(text);
        b->setFont(Theme::font(Theme::TextStyle::body, QFont::DemiBold));
        b->setAutoRepeat(true);
        connect(b, &QToolButton::clicked, this, [this, delta] { setRetention(retention_ + delta); });
        buttonsLayout->addWidget(b);
    };
    stepButton(QStringLiteral("−"), "retentionDown", -1);
    stepButton(QStringLiteral("+"), "retentionUp", +1);
    stepperLayout->addWidget(buttons);
    keepRow->addWidget(stepper_);
    cardLayout->addLayout(keepRow);
    cardLayout->addWidget(Theme::makeDivider());

    auto* clearRow = new QHBoxLayout;
    clearRow->addWidget(textLabel(QStringLiteral("Clear all transcripts"), Theme::font(Theme::TextStyle::body),
                                  Theme::primaryText()));
    clearRow->addStretch(1);
    QToolButton* clear = borderlessButton(QStringLiteral("Clear"), Theme::Symbol::trash, QColor(215, 58, 50),
                                          Theme::font(Theme::TextStyle::body));
    clear->setObjectName(QStringLiteral("clearHistoryButton"));
    connect(clear, &QToolButton::clicked, this, &HistoryPane::askToClear);
    clearRow->addWidget(clear);
    cardLayout->addLayout(clearRow);

    auto* cardHolder = new QVBoxLayout;
    cardHolder->setContentsMargins(16, 14, 16, 10);
    cardHolder->addWidget(card);
    v->addLayout(cardHolder);

    // Header row.
    auto* headerRow = new QHBoxLayout;
    headerRow->setContentsMargins(20, 0, 16, 8);
    header_ = textLabel(QString(), Theme::font(Theme::TextStyle::headline), Theme::primaryText());
    header_->setObjectName(QStringLiteral("historyHeader"));
    headerRow->addWidget(header_);
    headerRow->addStretch(1);
    QToolButton* refresh = borderlessButton(QStringLiteral("Refresh"), Theme::Symbol::arrowClockwise, brandGreen(),
                                            Theme::font(Theme::TextStyle::body));
    refresh->setObjectName(QStringLiteral("refreshButton"));
    connect(refresh, &QToolButton::clicked, this, &HistoryPane::reload);
    headerRow->addWidget(refresh);
    v->addLayout(headerRow);

    auto* empty = textLabel(QStringLiteral("No transcripts yet.\nDictate something and it will be saved here."),
                            Theme::font(Theme::TextStyle::callout), Theme::secondaryText());
    empty->setObjectName(QStringLiteral("emptyHistoryText"));
    stack_ = listOrEmptyText(empty, QMargins(16, 10, 16, 10), 10, &rowsLayout_);
    v->addLayout(stack_, 1);

    updateSettingsRows();
    rebuildList();
}

void HistoryPane::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    reload();
}

void HistoryPane::reload()
{
    QList<TranscriptEntry> list =
        services_.historyEntries ? services_.historyEntries() : TranscriptStore::shared().entries();
    std::reverse(list.begin(), list.end());
    entries_ = list;
    rebuildList();
}

void HistoryPane::copy(const TranscriptEntry& entry)
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(entry.text);
    copiedID_ = entry.id;
    updateCopyMarks();  // in place, so the list keeps its scroll position
}

void HistoryPane::updateCopyMarks()
{
    for (qsizetype i = 0; i < copyButtons_.size() && i < entries_.size(); ++i) {
        const bool copied = copiedID_ && *copiedID_ == entries_[i].id;
        QToolButton* b = copyButtons_[i];
        b->setText(copied ? QStringLiteral("Copied") : QStringLiteral("Copy"));
        b->setIcon(Theme::symbolIcon(copied ? Theme::Symbol::checkmark : Theme::Symbol::docOnDoc, brandGreen(), 14));
    }
}

void HistoryPane::setRetention(int count)
{
    count = std::clamp(count, Settings::retentionMin, Settings::retentionMax);
    if (count == retention_)
        return;
    retention_ = count;
    Preferences::shared().setHistoryRetention(count);
    updateSettingsRows();
}

void HistoryPane::askToClear()
{
    if (confirm_)
        return;
    confirm_ = new QMessageBox(QMessageBox::Warning, QStringLiteral("Tolvane"),
                               QStringLiteral("Delete all saved transcripts? This can't be undone."),
                               QMessageBox::NoButton, this);
    confirm_->setObjectName(QStringLiteral("clearConfirmation"));
    confirm_->setAttribute(Qt::WA_DeleteOnClose);
    QPushButton* deleteAll = confirm_->addButton(QStringLiteral("Delete All"), QMessageBox::DestructiveRole);
    QPushButton* cancel = confirm_->addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    confirm_->setDefaultButton(cancel);
    connect(deleteAll, &QPushButton::clicked, this, [this] {
        if (services_.clearHistory)
            services_.clearHistory();
        else
            TranscriptStore::shared().clear();
        entries_.clear();
        rebuildList();
    });
    confirm_->open();
}

QString HistoryPane::dateText(const QString& timestamp)
{
    const QDateTime when = QDateTime::fromString(timestamp, Qt::ISODateWithMs);
    if (!when.isValid())
        return timestamp;
    const QLocale locale;
    const QDateTime local = when.toLocalTime();
    QString timeFormat = locale.timeFormat(QLocale::ShortFormat);
    timeFormat.remove(QRegularExpression(QStringLiteral("[:.]ss?")));  // some locales' short form has seconds
    return locale.toString(local.date(), mediumDateFormat(locale)) + QStringLiteral(", ") +
           locale.toString(local.time(), timeFormat);
}

void HistoryPane::updateSettingsRows()
{
    enabledCaption_->setText(historyEnabled_ ? QStringLiteral("Stored on this computer only")
                                             : QStringLiteral("Nothing is written to disk"));
    stepper_->setEnabled(historyEnabled_);
    retentionValue_->setText(QString::number(retention_));
    Theme::setTextColor(retentionValue_, historyEnabled_ ? Theme::primaryText() : Theme::tertiaryText());
    findChild<QToolButton*>(QStringLiteral("retentionDown"))->setEnabled(retention_ > Settings::retentionMin);
    findChild<QToolButton*>(QStringLiteral("retentionUp"))->setEnabled(retention_ < Settings::retentionMax);
    header_->setText(QStringLiteral("Last ") + QString::number(retention_) + QStringLiteral(" transcripts"));
}

void HistoryPane::rebuildList()
{
    removeRowsLater(rowsLayout_);
    copyButtons_.clear();
    for (const TranscriptEntry& entry : entries_) {
        auto* row = new Card(10, 0.1);
        row->setOutline(0.18, 0.5);
        row->setObjectName(QStringLiteral("historyRow"));
        auto* v = new QVBoxLayout(row);
        v->setContentsMargins(12, 12, 12, 12);
        v->setSpacing(6);
        auto* top = new QHBoxLayout;
        QLabel* date = textLabel(dateText(entry.timestamp), Theme::font(Theme::TextStyle::caption), Theme::secondaryText());
        date->setObjectName(QStringLiteral("historyDate"));
        top->addWidget(date);
        top->addStretch(1);
        QToolButton* copy = borderlessButton(QStringLiteral("Copy"), Theme::Symbol::docOnDoc, brandGreen(),
                                             Theme::font(Theme::TextStyle::caption, QFont::Medium));
        copy->setObjectName(QStringLiteral("copyButton"));
        connect(copy, &QToolButton::clicked, this, [this, entry] { this->copy(entry); });
        copyButtons_.append(copy);
        top->addWidget(copy);
        v->addLayout(top);
        QLabel* text = textLabel(entry.text, Theme::font(Theme::TextStyle::body, QFont::Normal, true), Theme::primaryText());
        text->setObjectName(QStringLiteral("historyText"));
        text->setTextFormat(Qt::PlainText);
        text->setWordWrap(true);
        text->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
        text->setCursor(Qt::IBeamCursor);
        v->addWidget(text);
        rowsLayout_->addWidget(row);
        row->show();
    }
    rowsLayout_->addStretch(1);
    updateCopyMarks();
    stack_->setCurrentIndex(entries_.isEmpty() ? 0 : 1);
}
