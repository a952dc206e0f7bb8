#include "ui/tray/UpdateChecker.h"

#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "ui/tray/ReleaseFeed.h"

#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <qcoro/qcoronetworkreply.h>

UpdateChecker::UpdateChecker(QString currentVersion, QObject* parent)
    : QObject(parent), currentVersion_(std::move(currentVersion)), network_(new QNetworkAccessManager(this))
{
}

UpdateChecker::~UpdateChecker()
{
    delete box_.data();
}

QCoro::Task<UpdateChecker::Result> UpdateChecker::check()
{
    return check(Preferences::shared().value(Settings::updateFeedUrl));
}

QCoro::Task<UpdateChecker::Result> UpdateChecker::check(QString feed)
{
    using Outcome = Result::Outcome;
    Result result;
    feed = feed.trimmed();
    if (feed.isEmpty()) {
        result.outcome = Outcome::notConfigured;
        result.message = QStringLiteral("No release feed is configured, so Tolvane cannot look for a newer version. "
                                        "Put the feed's address under updateFeedUrl in %1, or update Tolvane "
                                        "through your package manager.")
                             .arg(Preferences::shared().storePath());
        Diagnostics::log(QStringLiteral("update: no release feed configured"));
        co_return result;
    }
    const QUrl url = QUrl::fromUserInput(feed);
    if (!url.isValid() || !(url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https") ||
                            url.scheme() == QLatin1String("file"))) {
        result.outcome = Outcome::unreachable;
        result.message = QStringLiteral("The release feed address “%1” is not an http, https or file address.").arg(feed);
        Diagnostics::log(QStringLiteral("update: unusable feed address ") + feed);
        co_return result;
    }

    Diagnostics::log(QStringLiteral("update: checking ") + url.toString());
    QNetworkRequest request(url);
    request.setTransferTimeout(timeoutMs_);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Tolvane/") + currentVersion_);
    QNetworkReply* r = network_->get(request);
    co_await r;
    r->deleteLater();

    const int status = r->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (r->error() != QNetworkReply::NoError || (status != 0 && (status < 200 || status >= 300))) {
        QString why = r->error() == QNetworkReply::OperationCanceledError || r->error() == QNetworkReply::TimeoutError
                          ? QStringLiteral("no answer within %1 seconds").arg(timeoutMs_ / 1000.0)
                          : r->errorString();
        if (status >= 300)
            why = QStringLiteral("the server answered %1 %2")
                      .arg(status)
                      .arg(r->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString());
        result.outcome = Outcome::unreachable;
        result.message = QStringLiteral("Tolvane could not reach the release feed at %1: %2.").arg(url.toString(), why);
        Diagnostics::log(QStringLiteral("update: feed unreachable: ") + why);
        co_return result;
    }

    QString error;
    const auto release = ReleaseFeed::parse(r->readAll(), &error);
    if (!release) {
        result.outcome = Outcome::unreadable;
        result.message = QStringLiteral("The release feed at %1 names no version Tolvane can read: %2.")
                             .arg(url.toString(), error);
        Diagnostics::log(QStringLiteral("update: feed unreadable: ") + error);
        co_return result;
    }
    result.latestVersion = release->version;
    result.link = release->link;
    if (ReleaseFeed::compareVersions(release->version, currentVersion_) > 0) {
        result.outcome = Outcome::newer;
        result.message = QStringLiteral("Tolvane %1 is available; you have %2. Update it through your package manager.")
                             .arg(release->version, currentVersion_);
        if (!release->link.isEmpty())
            result.message += QStringLiteral("\n\nRelease notes: ") + release->link;
    } else {
        result.outcome = Outcome::upToDate;
        result.message = QStringLiteral("Tolvane %1 is the newest version.").arg(currentVersion_);
    }
    Diagnostics::log(QStringLiteral("update: newest release %1, running %2").arg(release->version, currentVersion_));
    co_return result;
}

void UpdateChecker::checkAndReport(QWidget* parent)
{
    if (checking_)
        return;
    runAndReport(QPointer<QWidget>(parent));
}

QCoro::Task<> UpdateChecker::runAndReport(QPointer<QWidget> parent)
{
    QPointer<UpdateChecker> self(this);
    checking_ = true;
    const Result result = co_await check();
    if (!self)
        co_return;
    checking_ = false;
    if (!box_) {
        box_ = new QMessageBox(parent);
        box_->setWindowTitle(QStringLiteral("Check for Updates"));
        box_->setStandardButtons(QMessageBox::Ok);
        box_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::LinksAccessibleByMouse);
        box_->setModal(false);
    }
    box_->setIcon(result.outcome == Result::Outcome::newer || result.outcome == Result::Outcome::upToDate
                      ? QMessageBox::Information
                      : QMessageBox::Warning);
    box_->setText(result.message);
    box_->show();
    box_->raise();
    box_->activateWindow();
    Q_EMIT finished(result);
}
