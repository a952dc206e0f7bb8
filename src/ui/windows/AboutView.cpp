#include "ui/windows/AboutView.h"

#include "ui/widgets/Theme.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#ifndef TOLVANE_VERSION
#define TOLVANE_VERSION ""
#endif

#ifndef TOLVANE_HOMEPAGE
#define TOLVANE_HOMEPAGE ""
#endif
#ifndef TOLVANE_SOURCE_DIR
#define TOLVANE_SOURCE_DIR ""
#endif
#ifndef TOLVANE_BUILD_DIR
#define TOLVANE_BUILD_DIR ""
#endif

const QString AboutView::ownershipNotice = QStringLiteral("© 2026 The Tolvane developers");

namespace {

// A full-width button on a light rounded panel: symbol, title, and an outward arrow at the end.
class LinkButton final : public QPushButton {
public:
    LinkButton(const QString& title, Theme::Symbol symbol, QString address)
        : symbol_(symbol), address_(std::move(address))
    {
        setText(title);
        setFont(Theme::font(Theme::TextStyle::callout, QFont::Medium));
        setCursor(Qt::PointingHandCursor);
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        connect(this, &QPushButton::clicked, this, [this] { AboutView::openAddress(address_); });
    }
    QSize sizeHint() const override { return {200, QFontMetrics(font()).height() + 18}; }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        const QRectF r = QRectF(rect());
        p.setPen(Qt::NoPen);
        p.setBrush(Theme::secondaryFill(isDown() ? 0.22 : (underMouse() ? 0.17 : 0.12)));
        p.drawRoundedRect(r, 10, 10);
        const qreal cy = r.center().y();
        Theme::paintSymbol(p, symbol_, QRectF(14, cy - 8, 16, 16), brandGreen());
        p.setPen(brandGreen());
        p.setFont(font());
        p.drawText(QRectF(38, 0, r.width() - 70, r.height()), Qt::AlignVCenter | Qt::AlignLeft, text());
        Theme::paintSymbol(p, Theme::Symbol::arrowUpRight, QRectF(r.right() - 14 - 10, cy - 5, 10, 10),
                           Theme::secondaryText());
    }

private:
    Theme::Symbol symbol_;
    QString address_;
};

QLabel* centred(const QString& text, const QFont& font, const QColor& color)
{
    auto* label = new QLabel(text);
    label->setFont(font);
    label->setAlignment(Qt::AlignHCenter);
    label->setWordWrap(true);
    Theme::setTextColor(label, color);
    return label;
}

}  // namespace

AboutView::AboutView(std::optional<QString> displayVersion, QWidget* parent)
    : QWidget(parent), displayVersion_(std::move(displayVersion))
{
    setFixedSize(width, height);
    auto* v = new QVBoxLayout(this);
    v->setContentsMargins(24, 26, 24, 16);
    v->setSpacing(0);

    auto* icon = new QLabel;
    icon->setPixmap(Theme::appIcon(84, 2.0));
    icon->setFixedSize(84, 84);
    v->addWidget(icon, 0, Qt::AlignHCenter);
    v->addSpacing(10);
    QLabel* name = centred(QStringLiteral("Tolvane"), Theme::font(Theme::TextStyle::title, QFont::Bold), Theme::primaryText());
    v->addWidget(name);
    v->addSpacing(6);
    QLabel* versionLabel = centred(version(), Theme::font(Theme::TextStyle::callout), Theme::secondaryText());
    versionLabel->setObjectName(QStringLiteral("versionLine"));
    v->addWidget(versionLabel);
    v->addSpacing(10);
    v->addWidget(centred(QStringLiteral("100% on-device dictation. Private by design."),
                         Theme::font(Theme::TextStyle::callout), Theme::secondaryText()));
    v->addSpacing(18);
    v->addWidget(Theme::makeDivider());
    v->addSpacing(18);
    v->addWidget(centred(QStringLiteral("Free software, MIT licence"), Theme::font(Theme::TextStyle::headline),
                         Theme::primaryText()));
    v->addSpacing(8);
    v->addWidget(centred(QStringLiteral("Tolvane is free, needs no account and no subscription, and sends nothing "
                                        "off this computer. You may use, change and share it under the MIT licence."),
                         Theme::font(Theme::TextStyle::callout), Theme::secondaryText()));
    v->addSpacing(14);
    for (const Link& link : links(QStringLiteral(TOLVANE_HOMEPAGE), documentFolders())) {
        auto* button = new LinkButton(link.title, link.symbol, link.address);
        button->setObjectName(link.objectName);
        v->addWidget(button);
        v->addSpacing(8);
    }
    v->addStretch(1);
    v->addWidget(centred(ownershipNotice, Theme::font(Theme::TextStyle::caption2), Theme::tertiaryText()));
}

QString AboutView::version() const { return versionLine(displayVersion_, QStringLiteral(TOLVANE_VERSION)); }

QString AboutView::versionLine(std::optional<QString> displayVersion, const QString& buildVersion)
{
    if (displayVersion)
        return *displayVersion;
    return QStringLiteral("Version ") + (buildVersion.isEmpty() ? QStringLiteral("1.0.5") : buildVersion);
}

QList<AboutView::DocumentFolder> AboutView::documentFolders()
{
    // Beside the installed program whatever the prefix: <prefix>/bin/tolvane, <prefix>/share/doc/tolvane.
    const QString docs = QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/../share/doc/tolvane"));
    const DocumentFolder installed{docs, QStringLiteral("copyright")};
    const DocumentFolder source{QStringLiteral(TOLVANE_SOURCE_DIR), QStringLiteral("LICENSE")};
    // Run from the build folder, the source tree's files describe this build; installed, the
    // package's copies do, and a source tree elsewhere on the disk may be of another version.
    const bool fromBuild = !source.path.isEmpty() &&
                           QDir(QCoreApplication::applicationDirPath()) == QDir(QStringLiteral(TOLVANE_BUILD_DIR));
    return fromBuild ? QList{source, installed} : QList{installed};
}

QList<AboutView::Link> AboutView::links(const QString& homepage, const QList<DocumentFolder>& folders)
{
    QList<Link> result;
    // A document is linked only where it exists, so no button leads nowhere.
    for (const DocumentFolder& folder : folders) {
        const QString readme = folder.path + QStringLiteral("/README.md");
        const QString licence = folder.path + QLatin1Char('/') + folder.licenceFile;
        if (!QFileInfo(readme).isFile() || !QFileInfo(licence).isFile())
            continue;
        result.append({QStringLiteral("Read me"), Theme::Symbol::docOnDoc,
                       QUrl::fromLocalFile(readme).toString(), QStringLiteral("readmeLink")});
        result.append({QStringLiteral("Licence"), Theme::Symbol::docOnDoc,
                       QUrl::fromLocalFile(licence).toString(), QStringLiteral("licenceLink")});
        break;
    }
    if (isOpenableAddress(homepage))
        result.append({QStringLiteral("Tolvane home"), Theme::Symbol::house, homepage, QStringLiteral("homeLink")});
    return result;
}

bool AboutView::isOpenableAddress(const QString& address)
{
    const QUrl url(address, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty())
        return false;
    return url.isLocalFile() ? QFileInfo(url.toLocalFile()).isFile() : !url.host().isEmpty();
}

bool AboutView::openAddress(const QString& address)
{
    return isOpenableAddress(address) && QDesktopServices::openUrl(QUrl(address, QUrl::StrictMode));
}
