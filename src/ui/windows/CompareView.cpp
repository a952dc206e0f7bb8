#include "ui/windows/CompareView.h"

#include "dictation/CompareModel.h"
#include "ui/widgets/Card.h"
#include "ui/widgets/Theme.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>

namespace {
struct Block {
    const char* title;
    bool monospaced;
};
constexpr Block blocks[4] = {{"Raw", true}, {"Tidy", false}, {"Bullets", true}, {"Summary", false}};
}  // namespace

CompareView::CompareView(CompareModel& model, QWidget* parent) : QWidget(parent), model_(model)
{
    setMinimumSize(560, 480);
    auto* v = new QVBoxLayout(this);
    v->setContentsMargins(0, 0, 0, 0);
    v->setSpacing(0);

    status_ = new QLabel;
    status_->setObjectName(QStringLiteral("compareStatus"));
    status_->setFont(Theme::font(Theme::TextStyle::callout));
    status_->setWordWrap(true);
    status_->setContentsMargins(12, 12, 12, 12);
    v->addWidget(status_);
    v->addWidget(Theme::makeDivider());

    auto* scroll = new QScrollArea;
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    Theme::styleScrollBar(scroll);
    auto* content = new QWidget;
    auto* stack = new QVBoxLayout(content);
    stack->setContentsMargins(14, 14, 14, 14);
    stack->setSpacing(16);
    for (int i = 0; i < 4; ++i) {
        auto* block = new QVBoxLayout;
        block->setSpacing(6);
        auto* header = new QHBoxLayout;
        auto* title = new QLabel(QString::fromLatin1(blocks[i].title));
        title->setFont(Theme::font(Theme::TextStyle::headline));
        Theme::setTextColor(title, Theme::primaryText());
        header->addWidget(title);
        header->addStretch(1);
        auto* copy = new QToolButton;
        copy->setObjectName(QStringLiteral("copy") + QString::fromLatin1(blocks[i].title));
        copy->setAutoRaise(true);
        copy->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        copy->setText(QStringLiteral("Copy"));
        copy->setFont(Theme::font(Theme::TextStyle::caption, QFont::Medium));
        copy->setIcon(Theme::symbolIcon(Theme::Symbol::docOnDoc, brandGreen(), 14));
        copy->setIconSize(QSize(13, 13));
        copy->setCursor(Qt::PointingHandCursor);
        copy->setStyleSheet(QStringLiteral("QToolButton { border: none; padding: 1px 2px; }"));
        Theme::setTextColor(copy, brandGreen());
        connect(copy, &QToolButton::clicked, this, [this, i] { copyBlock(i); });
        header->addWidget(copy);
        block->addLayout(header);

        auto* card = new Card(8, 0.08);
        auto* cardLayout = new QVBoxLayout(card);
        cardLayout->setContentsMargins(10, 10, 10, 10);
        auto* body = new QLabel;
        body->setTextFormat(Qt::PlainText);
        body->setWordWrap(true);
        body->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
        body->setFont(Theme::font(Theme::TextStyle::body, QFont::Normal, blocks[i].monospaced));
        cardLayout->addWidget(body);
        bodies_[static_cast<size_t>(i)] = body;
        block->addWidget(card);
        stack->addLayout(block);
    }
    stack->addStretch(1);
    scroll->setWidget(content);
    v->addWidget(scroll, 1);

    for (auto signal : {&CompareModel::statusChanged, &CompareModel::armedChanged, &CompareModel::rawChanged,
                        &CompareModel::tidyChanged, &CompareModel::bulletsChanged, &CompareModel::summaryChanged})
        connect(&model_, signal, this, &CompareView::refresh);
    refresh();
}

QString CompareView::textOf(int index) const
{
    switch (index) {
    case 0: return model_.raw();
    case 1: return model_.tidy();
    case 2: return model_.bullets();
    default: return model_.summary();
    }
}

void CompareView::copyBlock(int index)
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(textOf(index));
}

void CompareView::refresh()
{
    status_->setText(model_.status());
    Theme::setTextColor(status_, model_.armed() ? Theme::primaryText() : Theme::secondaryText());
    for (int i = 0; i < 4; ++i) {
        const QString text = textOf(i);
        QLabel* body = bodies_[static_cast<size_t>(i)];
        body->setText(text.isEmpty() ? QStringLiteral("…") : text);
        Theme::setTextColor(body, text.isEmpty() ? Theme::secondaryText() : Theme::primaryText());
    }
}
