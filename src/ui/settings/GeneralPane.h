#pragma once

#include "core/ActivationKey.h"
#include "core/CleanupMode.h"
#include "ui/settings/SettingsServices.h"

#include <QStringList>
#include <QWidget>

#include <functional>

class QComboBox;
class QLabel;
class QLineEdit;
class QTimer;
class HotkeyTester;
class ToggleSwitch;

// The first Settings tab: how-to card, language, activation key with its tester, output options,
// the cleanup model server, start at login and taskbar presence. Every control writes its setting
// the moment it changes; opening the pane writes nothing.
class GeneralPane final : public QWidget {
    Q_OBJECT
public:
    GeneralPane(std::function<void()> reassert, SettingsServices services, QWidget* parent = nullptr);
    ~GeneralPane() override;

    // The language choices: the recognizer's list, with the current language first when it lacks it.
    QStringList localeOptions() const;
    static QString localeDisplayName(const QString& identifier);

protected:
    void showEvent(QShowEvent* event) override;

private:
    QWidget* buildHowTo();
    QWidget* buildLanguage();
    QWidget* buildShortcut();
    QWidget* buildOutput();
    QWidget* buildCleanupModel();
    QWidget* buildStartup();

    void fillLocalePicker();
    void loadLocales();
    void checkCleanupModel();
    void checkSpeechServer();
    void updateCleanupRow();
    void updateHowTo();
    void fillKeyPicker();
    void updateKeyboardNotice();

    std::function<void()> reassert_;
    SettingsServices services_;

    bool startAtLogin_;
    bool showDockIcon_;
    bool autoReturn_;
    CleanupMode cleanupMode_;
    bool liveTyping_;
    ActivationKey activationKey_;
    QString localeID_;
    QStringList locales_;

    QLabel* howToKeyLine_ = nullptr;
    QComboBox* localePicker_ = nullptr;
    QComboBox* keyPicker_ = nullptr;
    HotkeyTester* tester_ = nullptr;
    QLabel* keyboardNotice_ = nullptr;
    QComboBox* cleanupPicker_ = nullptr;
    QLabel* cleanupCaption_ = nullptr;
    QLineEdit* endpointField_ = nullptr;
    QLineEdit* modelField_ = nullptr;
    QLabel* modelStatus_ = nullptr;
    QLabel* modelStatusDot_ = nullptr;
    QTimer* recheck_ = nullptr;
    QComboBox* speechEnginePicker_ = nullptr;
    QWidget* speechServerRows_ = nullptr;
    QLineEdit* speechEndpointField_ = nullptr;
    QLabel* speechStatus_ = nullptr;
    QLabel* speechStatusDot_ = nullptr;
    QTimer* speechRecheck_ = nullptr;
    int speechGeneration_ = 0;
    ToggleSwitch* loginSwitch_ = nullptr;
    int checkGeneration_ = 0;
};
