#pragma once

#include <QMessageBox>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <qcoro/qcorotask.h>

class QNetworkAccessManager;
class QWidget;

// "Check for Updates…": reads the release feed named by the updateFeedUrl setting and says whether
// a newer version than the running one exists. It replaces nothing; Linux users update through
// their package manager.
class UpdateChecker final : public QObject {
    Q_OBJECT
public:
    struct Result {
        enum class Outcome : quint8 { newer, upToDate, notConfigured, unreachable, unreadable };
        Outcome outcome = Outcome::notConfigured;
        QString latestVersion;  // when the feed named one
        QString link;           // the release page, when the feed gave one
        QString message;        // what the user is told
    };

    explicit UpdateChecker(QString currentVersion = QStringLiteral(TOLVANE_VERSION), QObject* parent = nullptr);
    ~UpdateChecker() override;

    // How long the feed may take to answer, in milliseconds.
    void setTimeout(int ms) { timeoutMs_ = ms; }

    // Checks the feed the settings name. Never throws.
    QCoro::Task<Result> check();
    QCoro::Task<Result> check(QString feed);

    // The user's check: runs check() and shows the answer in a message box (one at a time).
    void checkAndReport(QWidget* parent = nullptr);
    QMessageBox* reportBox() const { return box_; }
    bool isChecking() const { return checking_; }

Q_SIGNALS:
    void finished(const UpdateChecker::Result& result);

private:
    QCoro::Task<> runAndReport(QPointer<QWidget> parent);

    QString currentVersion_;
    int timeoutMs_ = 15000;
    QNetworkAccessManager* network_ = nullptr;
    QPointer<QMessageBox> box_;
    bool checking_ = false;
};
