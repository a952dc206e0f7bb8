#include "ui/settings/SettingsView.h"

#include "ui/settings/GeneralPane.h"
#include "ui/settings/HistoryPane.h"
#include "ui/settings/SnippetsPane.h"
#include "ui/widgets/TabPill.h"
#include "ui/widgets/Theme.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QScreen>
#include <QVBoxLayout>

int SettingsView::contentHeight(std::optional<int> visibleScreenHeight)
{
    const int h = visibleScreenHeight ? std::max(*visibleScreenHeight - 24, 420) : 780;
    return std::min(h, 804);
}

int SettingsView::contentHeight()
{
    const QScreen* screen = QGuiApplication::primaryScreen();
    return contentHeight(screen ? std::optional<int>(screen->availableGeometry().height()) : std::nullopt);
}

SettingsView::SettingsView(std::function<void()> reassert, Pane initialPane, SettingsServices services,
                           QWidget* parent)
    : QWidget(parent), reassert_(std::move(reassert)), services_(std::move(services)), pane_(initialPane)
{
    setFixedSize(width, contentHeight());
    auto* v = new QVBoxLayout(this);
    v->setContentsMargins(0, 0, 0, 0);
    v->setSpacing(0);

    // Header.
    auto* header = new QHBoxLayout;
    header->setContentsMargins(20, 16, 20, 12);
    header->setSpacing(12);
    auto* icon = new QLabel;
    icon->setPixmap(Theme::appIcon(46, 2.0));
    icon->setFixedSize(46, 46);
    header->addWidget(icon);
    auto* titles = new QVBoxLayout;
    titles->setSpacing(2);
    titles->addStretch(1);
    auto* name = new QLabel(QStringLiteral("Tolvane"));
    name->setFont(Theme::font(Theme::TextStyle::title2, QFont::Bold));
    Theme::setTextColor(name, Theme::primaryText());
    titles->addWidget(name);
    auto* tagline = new QLabel(QStringLiteral("On-device dictation · 100% private"));
    tagline->setFont(Theme::font(Theme::TextStyle::callout));
    Theme::setTextColor(tagline, Theme::secondaryText());
    titles->addWidget(tagline);
    titles->addStretch(1);
    header->addLayout(titles);
    header->addStretch(1);
    v->addLayout(header);

    // Tab row.
    auto* tabs = new QHBoxLayout;
    tabs->setContentsMargins(20, 0, 20, 10);
    tabs->setSpacing(6);
    const std::array<std::pair<Pane, QString>, 3> titlesOfPanes = {{
        {Pane::general, QStringLiteral("General")},
        {Pane::snippets, QStringLiteral("Snippets")},
        {Pane::history, QStringLiteral("History")},
    }};
    for (const auto& [p, title] : titlesOfPanes) {
        auto* pill = new TabPill(title);
        pill->setObjectName(title.toLower() + QStringLiteral("Tab"));
        pills_[static_cast<size_t>(p)] = pill;
        tabs->addWidget(pill);
        connect(pill, &TabPill::clicked, this, [this, p = p] { setPane(p); });
    }
    tabs->addStretch(1);
    v->addLayout(tabs);
    v->addWidget(Theme::makeDivider());

    paneHolder_ = new QVBoxLayout;
    paneHolder_->setContentsMargins(0, 0, 0, 0);
    v->addLayout(paneHolder_, 1);
    showPane();
}

void SettingsView::setPane(Pane pane)
{
    if (pane == pane_ && paneWidget_)
        return;  // the chosen tab again: its pane stays as it is
    pane_ = pane;
    showPane();
}

void SettingsView::showPane()
{
    for (size_t i = 0; i < pills_.size(); ++i)
        pills_[i]->setSelected(static_cast<size_t>(pane_) == i);
    if (paneWidget_) {
        paneHolder_->removeWidget(paneWidget_);
        paneWidget_->hide();
        paneWidget_->deleteLater();
    }
    switch (pane_) {
    case Pane::general:
        // Through this view, so a later setReassert reaches panes made before it.
        paneWidget_ = new GeneralPane([this] { if (reassert_) reassert_(); }, services_);
        break;
    case Pane::snippets:
        paneWidget_ = new SnippetsPane;
        break;
    case Pane::history:
        paneWidget_ = new HistoryPane(services_);
        break;
    }
    paneHolder_->addWidget(paneWidget_);
    paneWidget_->show();
}
