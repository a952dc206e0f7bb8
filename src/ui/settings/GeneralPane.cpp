#include "ui/settings/GeneralPane.h"

#include "storage/Preferences.h"
#include "ui/settings/HotkeyTester.h"
#include "ui/widgets/Card.h"
#include "ui/widgets/TaskbarPresence.h"
#include "ui/widgets/Theme.h"
#include "ui/widgets/ToggleSwitch.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPainter>
#include <QPointer>
#include <QScrollArea>
#include <QTimer>
#include <QVBoxLayout>

namespace {

QLabel* textLabel(const QString& text, Theme::TextStyle style, const QColor& color,
                  QFont::Weight weight = QFont::Normal)
{
    auto* label = new QLabel(text);
    label->setFont(Theme::font(style, weight));
    Theme::setTextColor(label, color);
    return label;
}

// A title over an optional caption line, the left side of most rows.
QWidget* titleBlock(const QString& title, const QString& subtitle, QLabel** captionOut = nullptr)
{
    auto* block = new QWidget;
    auto* v = new QVBoxLayout(block);
    v->setContentsMargins(0, 0, 0, 0);
    v->setSpacing(1);
    v->addWidget(textLabel(title, Theme::TextStyle::body, Theme::primaryText()));
    if (!subtitle.isNull() || captionOut) {
        QLabel* caption = textLabel(subtitle, Theme::TextStyle::caption, Theme::secondaryText());
        v->addWidget(caption);
        if (captionOut)
            *captionOut = caption;
    }
    return block;
}

QHBoxLayout* rowLayout()
{
    auto* h = new QHBoxLayout;
    h->setContentsMargins(0, 0, 0, 0);
    return h;
}

// Card: the content stacked with 9 between items, 13 all round.
Card* makeCard(QVBoxLayout** contentOut)
{
    auto* card = new Card(12, 0.1);
    auto* v = new QVBoxLayout(card);
    v->setContentsMargins(13, 13, 13, 13);
    v->setSpacing(9);
    *contentOut = v;
    return card;
}

// Section: an upper-case caption over a card.
QWidget* makeSection(const QString& title, QVBoxLayout** contentOut)
{
    auto* section = new QWidget;
    auto* v = new QVBoxLayout(section);
    v->setContentsMargins(0, 0, 0, 0);
    v->setSpacing(6);
    QLabel* heading = textLabel(title, Theme::TextStyle::caption, Theme::secondaryText(), QFont::DemiBold);
    QFont f = heading->font();
    f.setLetterSpacing(QFont::AbsoluteSpacing, 0.6);
    heading->setFont(f);
    heading->setContentsMargins(4, 0, 0, 0);
    v->addWidget(heading);
    v->addWidget(makeCard(contentOut));
    return section;
}

QWidget* chipRow(Theme::Symbol symbol, const QColor& color, const QString& text, QLabel** labelOut)
{
    auto* row = new QWidget;
    auto* h = new QHBoxLayout(row);
    h->setContentsMargins(0, 0, 0, 0);
    h->setSpacing(12);
    auto* chip = new QLabel;
    chip->setFixedSize(26, 26);
    {
        const qreal dpr = 2.0;
        QPixmap pm(QSize(26, 26) * dpr);
        pm.setDevicePixelRatio(dpr);
        pm.fill(Qt::transparent);
        QPainter p(&pm);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        p.setBrush(color);
        p.drawRoundedRect(QRectF(0, 0, 26, 26), 7, 7);
        Theme::paintSymbol(p, symbol, QRectF(6, 6, 14, 14), Qt::white);
        p.end();
        chip->setPixmap(pm);
    }
    h->addWidget(chip);
    QLabel* label = textLabel(text, Theme::TextStyle::callout, Theme::primaryText());
    label->setWordWrap(true);
    h->addWidget(label, 1);
    if (labelOut)
        *labelOut = label;
    return row;
}

ToggleSwitch* makeSwitch(bool on, const char* name)
{
    auto* s = new ToggleSwitch;
    s->setChecked(on);
    s->setObjectName(QString::fromLatin1(name));
    return s;
}

QWidget* switchRow(const QString& title, const QString& subtitle, ToggleSwitch* toggle)
{
    auto* row = new QWidget;
    auto* h = rowLayout();
    row->setLayout(h);
    h->addWidget(titleBlock(title, subtitle));
    h->addStretch(1);
    h->addWidget(toggle, 0, Qt::AlignVCenter);
    toggle->setAccessibleName(title);
    return row;
}

QComboBox* makePicker(const char* name)
{
    auto* picker = new QComboBox;
    picker->setObjectName(QString::fromLatin1(name));
    picker->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    picker->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    picker->setFont(Theme::font(Theme::TextStyle::body));
    return picker;
}

QCoro::Task<QStringList> askLocales(std::function<QCoro::Task<QStringList>()> provider)
{
    try {
        co_return co_await provider();
    } catch (...) {
        co_return QStringList();
    }
}

template <typename Availability>
QCoro::Task<Availability> askAvailability(std::function<QCoro::Task<Availability>()> provider)
{
    try {
        co_return co_await provider();
    } catch (const std::exception& e) {
        Availability a;
        a.reason = QString::fromUtf8(e.what());
        co_return a;
    }
}

void paintDot(QLabel* dot, const QColor& color)
{
    QPixmap pm(QSize(10, 10) * 2);
    pm.setDevicePixelRatio(2);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawEllipse(QRectF(1, 2, 8, 8));
    p.end();
    dot->setPixmap(pm);
}

// A status line: a dot, then the text. Returns the text label.
QLabel* statusRow(QVBoxLayout* v, QLabel** dotOut, const char* name)
{
    auto* status = rowLayout();
    status->setSpacing(8);
    auto* dot = new QLabel;
    dot->setFixedSize(10, 10);
    status->addWidget(dot, 0, Qt::AlignTop | Qt::AlignHCenter);
    QLabel* text = textLabel(QString(), Theme::TextStyle::caption, Theme::secondaryText());
    text->setObjectName(QString::fromLatin1(name));
    text->setWordWrap(true);
    text->setTextInteractionFlags(Qt::TextSelectableByMouse);
    status->addWidget(text, 1);
    v->addLayout(status);
    *dotOut = dot;
    return text;
}

// "Available: <model> at <endpoint>", or what is wrong and what happens instead.
template <typename Availability>
void showAvailability(QLabel* dot, QLabel* text, const Availability& a, const QString& otherwise)
{
    if (a.available) {
        paintDot(dot, brandGreen());
        text->setText(QStringLiteral("Available: ") + a.model + QStringLiteral(" at ") + a.endpoint);
        return;
    }
    paintDot(dot, Theme::systemOrange());
    QString line = QStringLiteral("Not available");
    QString reason = a.reason.trimmed();
    while (reason.endsWith(QLatin1Char('.')))
        reason.chop(1);
    if (!reason.isEmpty())
        line += QStringLiteral(": ") + reason;
    text->setText(line + QStringLiteral(". ") + otherwise);
}

QLineEdit* settingField(const QString& text, const QString& placeholder, const char* name)
{
    auto* edit = new QLineEdit(text);
    edit->setObjectName(QString::fromLatin1(name));
    edit->setPlaceholderText(placeholder);
    edit->setFont(Theme::font(Theme::TextStyle::body));
    edit->setMinimumWidth(250);
    edit->setClearButtonEnabled(true);
    Theme::styleField(edit);
    return edit;
}

}  // namespace

GeneralPane::GeneralPane(std::function<void()> reassert, SettingsServices services, QWidget* parent)
    : QWidget(parent),
      reassert_(std::move(reassert)),
      services_(std::move(services)),
      startAtLogin_(Preferences::shared().startAtLogin()),
      showDockIcon_(Preferences::shared().showDockIcon()),
      autoReturn_(Preferences::shared().autoReturn()),
      cleanupMode_(Preferences::shared().cleanupMode()),
      liveTyping_(Preferences::shared().liveTyping()),
      activationKey_(Preferences::shared().activationKey()),
      localeID_(Preferences::shared().localeIdentifier())
{
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea;
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    Theme::styleScrollBar(scroll);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->viewport()->setAutoFillBackground(false);
    outer->addWidget(scroll);

    auto* content = new QWidget;
    content->setAutoFillBackground(false);
    auto* v = new QVBoxLayout(content);
    v->setContentsMargins(20, 20, 20, 20);
    v->setSpacing(14);
    v->addWidget(buildHowTo());
    v->addWidget(buildLanguage());
    v->addWidget(buildShortcut());
    v->addWidget(buildOutput());
    v->addWidget(buildCleanupModel());
    v->addWidget(buildStartup());
    v->addStretch(1);
    scroll->setWidget(content);

    recheck_ = new QTimer(this);
    recheck_->setSingleShot(true);
    recheck_->setInterval(600);  // wait for the user to stop typing before asking the server
    connect(recheck_, &QTimer::timeout, this, &GeneralPane::checkCleanupModel);
    speechRecheck_ = new QTimer(this);
    speechRecheck_->setSingleShot(true);
    speechRecheck_->setInterval(600);
    connect(speechRecheck_, &QTimer::timeout, this, &GeneralPane::checkSpeechServer);
}

GeneralPane::~GeneralPane() = default;

QWidget* GeneralPane::buildHowTo()
{
    QVBoxLayout* v;
    Card* card = makeCard(&v);
    v->addWidget(chipRow(Theme::Symbol::mic, brandGreen(), QString(), &howToKeyLine_));
    howToKeyLine_->setObjectName(QStringLiteral("howToKeyLine"));
    v->addWidget(Theme::makeDivider());
    v->addWidget(chipRow(Theme::Symbol::hands, Theme::systemBlue(),
                         QStringLiteral("Your key + Space for hands-free; any key or Esc to end."), nullptr));
    v->addWidget(Theme::makeDivider());
    v->addWidget(chipRow(Theme::Symbol::textCursor, Theme::systemOrange(),
                         QStringLiteral("Click into a text field first so it pastes there."), nullptr));
    updateHowTo();
    return card;
}

QWidget* GeneralPane::buildLanguage()
{
    QVBoxLayout* v;
    QWidget* section = makeSection(QStringLiteral("LANGUAGE"), &v);
    auto* h = rowLayout();
    h->addWidget(titleBlock(QStringLiteral("Transcription language"),
                            QStringLiteral("On-device model · downloads once per language")));
    h->addStretch(1);
    localePicker_ = makePicker("languagePicker");
    localePicker_->setAccessibleName(QStringLiteral("Transcription language"));
    h->addWidget(localePicker_);
    v->addLayout(h);
    fillLocalePicker();
    connect(localePicker_, &QComboBox::activated, this, [this](int index) {
        const QString id = localePicker_->itemData(index).toString();
        if (id == localeID_)
            return;  // choosing the selected language again writes nothing
        localeID_ = id;
        Preferences::shared().setLocaleIdentifier(id);
    });

    v->addWidget(Theme::makeDivider());
    auto* engine = rowLayout();
    engine->addWidget(titleBlock(QStringLiteral("Speech engine"), QString()));
    engine->addStretch(1);
    speechEnginePicker_ = makePicker("speechEnginePicker");
    speechEnginePicker_->setAccessibleName(QStringLiteral("Speech engine"));
    speechEnginePicker_->addItem(QStringLiteral("On this computer"));
    speechEnginePicker_->addItem(QStringLiteral("Local server"));
    speechEnginePicker_->setCurrentIndex(Preferences::shared().speechEngine() == SpeechEngineKind::server ? 1 : 0);
    engine->addWidget(speechEnginePicker_);
    v->addLayout(engine);
    connect(speechEnginePicker_, &QComboBox::activated, this, [this](int index) {
        Preferences::shared().setSpeechEngine(index == 1 ? SpeechEngineKind::server : SpeechEngineKind::pocketsphinx);
        checkSpeechServer();
    });

    speechServerRows_ = new QWidget;
    auto* rows = new QVBoxLayout(speechServerRows_);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(9);
    rows->addWidget(Theme::makeDivider());
    speechEndpointField_ = settingField(Preferences::shared().value(Settings::speechEndpoint),
                                        QStringLiteral("http://127.0.0.1:8080/inference"), "speechEndpointField");
    auto* server = rowLayout();
    server->addWidget(titleBlock(QStringLiteral("Server"), QStringLiteral("whisper.cpp or OpenAI-compatible")));
    server->addStretch(1);
    server->addWidget(speechEndpointField_);
    rows->addLayout(server);
    speechStatus_ = statusRow(rows, &speechStatusDot_, "speechServerStatus");
    v->addWidget(speechServerRows_);
    speechServerRows_->setVisible(Preferences::shared().speechEngine() == SpeechEngineKind::server);
    // textChanged also covers the clear button.
    connect(speechEndpointField_, &QLineEdit::textChanged, this, [this](const QString& t) {
        if (t.trimmed() == Preferences::shared().value(Settings::speechEndpoint))
            return;
        Preferences::shared().setValue(Settings::speechEndpoint, t.trimmed());
        speechRecheck_->start();
    });
    return section;
}

QWidget* GeneralPane::buildShortcut()
{
    QVBoxLayout* v;
    QWidget* section = makeSection(QStringLiteral("SHORTCUT"), &v);
    auto* h = rowLayout();
    h->addWidget(textLabel(QStringLiteral("Activation key"), Theme::TextStyle::body, Theme::primaryText()));
    h->addStretch(1);
    keyPicker_ = makePicker("activationKeyPicker");
    keyPicker_->setAccessibleName(QStringLiteral("Activation key"));
    fillKeyPicker();
    h->addWidget(keyPicker_);
    v->addLayout(h);
    v->addWidget(Theme::makeDivider());
    tester_ = new HotkeyTester(activationKey_);
    tester_->setObjectName(QStringLiteral("hotkeyTester"));
    v->addWidget(tester_);
    keyboardNotice_ = textLabel(QString(), Theme::TextStyle::caption, Theme::systemOrange());
    keyboardNotice_->setObjectName(QStringLiteral("keyboardNotice"));
    keyboardNotice_->setWordWrap(true);
    keyboardNotice_->setTextInteractionFlags(Qt::TextSelectableByMouse);  // so the command can be copied
    v->addWidget(keyboardNotice_);
    updateKeyboardNotice();
    connect(keyPicker_, &QComboBox::activated, this, [this](int index) {
        const ActivationKey key = ActivationKeys::fromRawValue(keyPicker_->itemData(index).toString()).value_or(activationKey_);
        if (key == activationKey_)
            return;
        activationKey_ = key;
        updateHowTo();
        tester_->setKey(key);
        Preferences::shared().setActivationKey(key);
    });
    return section;
}

QWidget* GeneralPane::buildOutput()
{
    QVBoxLayout* v;
    QWidget* section = makeSection(QStringLiteral("OUTPUT"), &v);

    ToggleSwitch* live = makeSwitch(liveTyping_, "liveTypingSwitch");
    v->addWidget(switchRow(QStringLiteral("Live typing"), QStringLiteral("Type the words as you speak (raw)"), live));
    connect(live, &ToggleSwitch::toggled, this, [this](bool on) {
        liveTyping_ = on;
        Preferences::shared().setLiveTyping(on);
        updateCleanupRow();
    });
    v->addWidget(Theme::makeDivider());

    ToggleSwitch* autoReturn = makeSwitch(autoReturn_, "autoReturnSwitch");
    v->addWidget(switchRow(QStringLiteral("Press Return after finishing"),
                           QStringLiteral("Auto-submit (hands-free mode only)"), autoReturn));
    connect(autoReturn, &ToggleSwitch::toggled, this, [this](bool on) {
        autoReturn_ = on;
        Preferences::shared().setAutoReturn(on);
    });
    v->addWidget(Theme::makeDivider());

    auto* h = rowLayout();
    h->addWidget(titleBlock(QStringLiteral("Cleanup"), QString(), &cleanupCaption_));
    cleanupCaption_->setObjectName(QStringLiteral("cleanupCaption"));
    h->addStretch(1);
    cleanupPicker_ = makePicker("cleanupPicker");
    cleanupPicker_->setAccessibleName(QStringLiteral("Cleanup"));
    for (CleanupMode mode : CleanupModes::allCases)
        cleanupPicker_->addItem(CleanupModes::label(mode), CleanupModes::rawValue(mode));
    cleanupPicker_->setCurrentIndex(static_cast<int>(cleanupMode_));
    h->addWidget(cleanupPicker_);
    v->addLayout(h);
    connect(cleanupPicker_, &QComboBox::activated, this, [this](int index) {
        const CleanupMode mode = CleanupModes::allCases[static_cast<size_t>(index)];
        if (mode == cleanupMode_)
            return;
        cleanupMode_ = mode;
        Preferences::shared().setCleanupMode(mode);
        updateCleanupRow();
    });
    updateCleanupRow();
    return section;
}

QWidget* GeneralPane::buildCleanupModel()
{
    QVBoxLayout* v;
    QWidget* section = makeSection(QStringLiteral("CLEANUP MODEL"), &v);

    endpointField_ = settingField(Preferences::shared().value(Settings::llmEndpoint),
                           QStringLiteral("Automatic (local servers)"), "llmEndpointField");
    modelField_ = settingField(Preferences::shared().value(Settings::llmModel),
                        QStringLiteral("First model the server lists"), "llmModelField");

    auto* server = rowLayout();
    server->addWidget(titleBlock(QStringLiteral("Server"), QStringLiteral("OpenAI-compatible, on this computer")));
    server->addStretch(1);
    server->addWidget(endpointField_);
    v->addLayout(server);
    v->addWidget(Theme::makeDivider());
    auto* model = rowLayout();
    model->addWidget(titleBlock(QStringLiteral("Model"), QString()));
    model->addStretch(1);
    model->addWidget(modelField_);
    v->addLayout(model);
    v->addWidget(Theme::makeDivider());

    modelStatus_ = statusRow(v, &modelStatusDot_, "cleanupModelStatus");

    auto changed = [this](const Setting<QString>& setting, const QString& text) {
        Preferences::shared().setValue(setting, text.trimmed());
        recheck_->start();
    };
    connect(endpointField_, &QLineEdit::textEdited, this,
            [changed](const QString& t) { changed(Settings::llmEndpoint, t); });
    connect(modelField_, &QLineEdit::textEdited, this,
            [changed](const QString& t) { changed(Settings::llmModel, t); });
    // The clear button changes the text without textEdited.
    connect(endpointField_, &QLineEdit::textChanged, this, [this, changed](const QString& t) {
        if (t.isEmpty() && !Preferences::shared().value(Settings::llmEndpoint).isEmpty())
            changed(Settings::llmEndpoint, t);
    });
    connect(modelField_, &QLineEdit::textChanged, this, [this, changed](const QString& t) {
        if (t.isEmpty() && !Preferences::shared().value(Settings::llmModel).isEmpty())
            changed(Settings::llmModel, t);
    });
    return section;
}

QWidget* GeneralPane::buildStartup()
{
    QVBoxLayout* v;
    QWidget* section = makeSection(QStringLiteral("STARTUP & TASKBAR"), &v);

    loginSwitch_ = makeSwitch(startAtLogin_, "startAtLoginSwitch");
    v->addWidget(switchRow(QStringLiteral("Start at login"), QString(), loginSwitch_));
    connect(loginSwitch_, &ToggleSwitch::toggled, this, [this](bool on) {
        Preferences::shared().setStartAtLogin(on);
        // Show what really happened: a failed registration leaves the entry as it was.
        startAtLogin_ = Preferences::shared().startAtLogin();
        if (loginSwitch_->isChecked() != startAtLogin_) {
            const QSignalBlocker block(loginSwitch_);
            loginSwitch_->setChecked(startAtLogin_);
        }
    });
    v->addWidget(Theme::makeDivider());

    ToggleSwitch* taskbar = makeSwitch(showDockIcon_, "taskbarSwitch");
    v->addWidget(switchRow(QStringLiteral("Show taskbar icon"), QString(), taskbar));
    connect(taskbar, &ToggleSwitch::toggled, this, [this](bool on) {
        showDockIcon_ = on;
        Preferences::shared().setShowDockIcon(on);
        TaskbarPresence::apply(Preferences::shared().showDockIcon());
        if (reassert_)
            reassert_();
    });
    return section;
}

QStringList GeneralPane::localeOptions() const
{
    QStringList options = locales_;
    if (!options.contains(localeID_))
        options.prepend(localeID_);
    return options;
}

QString GeneralPane::localeDisplayName(const QString& identifier)
{
    QString name = identifier;
    name.replace(QLatin1Char('-'), QLatin1Char('_'));
    const QLocale locale(name);
    if (locale.language() == QLocale::C || locale.language() == QLocale::AnyLanguage)
        return identifier;
    QString display = QLocale::languageToString(locale.language());
    if (name.contains(QLatin1Char('_')) && locale.territory() != QLocale::AnyTerritory)
        display += QStringLiteral(" (") + QLocale::territoryToString(locale.territory()) + QLatin1Char(')');
    return display;
}

void GeneralPane::fillLocalePicker()
{
    const QSignalBlocker block(localePicker_);
    localePicker_->clear();
    for (const QString& id : localeOptions())
        localePicker_->addItem(localeDisplayName(id), id);
    localePicker_->setCurrentIndex(localePicker_->findData(localeID_));
}

void GeneralPane::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    fillKeyPicker();
    updateKeyboardNotice();
    loadLocales();
    checkCleanupModel();
    checkSpeechServer();
}

void GeneralPane::fillKeyPicker()
{
    keyPicker_->clear();
    for (ActivationKey key : ActivationKeys::allCases) {
        // The chosen key stays listed even when no keyboard offers it now.
        if (key == activationKey_ || !services_.offersKey || services_.offersKey(key))
            keyPicker_->addItem(ActivationKeys::label(key), ActivationKeys::rawValue(key));
    }
    keyPicker_->setCurrentIndex(keyPicker_->findData(ActivationKeys::rawValue(activationKey_)));
}

void GeneralPane::updateKeyboardNotice()
{
    const QString notice = services_.keyboardNotice ? services_.keyboardNotice() : QString();
    keyboardNotice_->setText(notice);
    keyboardNotice_->setVisible(!notice.isEmpty());
}

void GeneralPane::loadLocales()
{
    if (!services_.supportedLocales)
        return;
    QCoro::connect(askLocales(services_.supportedLocales), this, [this](const QStringList& list) {
        if (list.isEmpty())
            return;  // keep what is listed
        locales_ = list;
        fillLocalePicker();
    });
}

void GeneralPane::checkCleanupModel()
{
    recheck_->stop();
    const int generation = ++checkGeneration_;
    paintDot(modelStatusDot_, Theme::tertiaryText());
    if (!services_.cleanupAvailability) {
        modelStatus_->setText(QStringLiteral("Availability unknown"));
        return;
    }
    modelStatus_->setText(QStringLiteral("Checking…"));
    QCoro::connect(askAvailability(services_.cleanupAvailability), this,
                   [this, generation](const CleanupEngine::Availability& a) {
                       if (generation == checkGeneration_)  // else the fields changed; a newer check is on its way
                           showAvailability(modelStatusDot_, modelStatus_, a, QStringLiteral("Cleanup keeps the raw text."));
                   });
}

void GeneralPane::checkSpeechServer()
{
    speechRecheck_->stop();
    const int generation = ++speechGeneration_;
    const bool server = Preferences::shared().speechEngine() == SpeechEngineKind::server;
    speechServerRows_->setVisible(server);
    if (!server)
        return;
    paintDot(speechStatusDot_, Theme::tertiaryText());
    if (!services_.speechAvailability) {
        speechStatus_->setText(QStringLiteral("Availability unknown"));
        return;
    }
    speechStatus_->setText(QStringLiteral("Checking…"));
    QCoro::connect(askAvailability(services_.speechAvailability), this,
                   [this, generation](const ServerSpeechEngine::Availability& a) {
                       if (generation == speechGeneration_)
                           showAvailability(speechStatusDot_, speechStatus_, a,
                                            QStringLiteral("Dictation uses this computer's recognizer."));
                   });
}

void GeneralPane::updateCleanupRow()
{
    cleanupPicker_->setEnabled(!liveTyping_);
    cleanupCaption_->setText(liveTyping_ ? QStringLiteral("Skipped while live typing")
                                         : CleanupModes::description(cleanupMode_));
}

void GeneralPane::updateHowTo()
{
    howToKeyLine_->setText(QStringLiteral("Hold ") + ActivationKeys::label(activationKey_) +
                           QStringLiteral(", speak, release."));
}
