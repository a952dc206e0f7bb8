#include "ui/settings/SnippetsPane.h"

#include "ui/widgets/Card.h"
#include "ui/widgets/Theme.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QStackedLayout>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

QToolButton* symbolButton(Theme::Symbol symbol, const QColor& color, int size, const QString& tip)
{
    auto* button = new QToolButton;
    button->setAutoRaise(true);
    button->setIcon(Theme::symbolIcon(symbol, color, size));
    button->setIconSize(QSize(size, size));
    button->setToolTip(tip);
    button->setCursor(Qt::PointingHandCursor);
    button->setStyleSheet(QStringLiteral("QToolButton { border: none; padding: 2px; }"));
    return button;
}

}  // namespace

SnippetsPane::SnippetsPane(QWidget* parent)
    : QWidget(parent), snippets_(SnippetStore::load()), trigger_(new QLineEdit), replacement_(new QLineEdit)
{
    auto* v = new QVBoxLayout(this);
    v->setContentsMargins(20, 20, 20, 20);
    v->setSpacing(12);

    auto* explanation = new QLabel(QStringLiteral("Say “snippet ‹trigger›” to insert its replacement. The “snippet” "
                                                  "prefix keeps normal speech from triggering it."));
    explanation->setFont(Theme::font(Theme::TextStyle::callout));
    Theme::setTextColor(explanation, Theme::secondaryText());
    explanation->setWordWrap(true);
    v->addWidget(explanation);

    auto* addRow = new QHBoxLayout;
    addRow->setSpacing(8);
    trigger_->setObjectName(QStringLiteral("triggerField"));
    trigger_->setPlaceholderText(QStringLiteral("Trigger (e.g. work email)"));
    replacement_->setObjectName(QStringLiteral("replacementField"));
    replacement_->setPlaceholderText(QStringLiteral("Replacement"));
    for (QLineEdit* field : {trigger_, replacement_}) {
        field->setFont(Theme::font(Theme::TextStyle::body));
        Theme::styleField(field);
        addRow->addWidget(field, 1);
    }
    QToolButton* addButton = symbolButton(Theme::Symbol::plusCircle, brandGreen(), 20, QStringLiteral("Add snippet"));
    addButton->setObjectName(QStringLiteral("addSnippetButton"));
    addRow->addWidget(addButton);
    v->addLayout(addRow);
    connect(addButton, &QToolButton::clicked, this, &SnippetsPane::add);

    v->addWidget(Theme::makeDivider());

    auto* empty = new QLabel(QStringLiteral("No snippets yet.\nAdd one above — e.g. trigger “work email” → your address."));
    empty->setObjectName(QStringLiteral("emptySnippetsText"));
    empty->setFont(Theme::font(Theme::TextStyle::callout));
    Theme::setTextColor(empty, Theme::secondaryText());
    stack_ = listOrEmptyText(empty, QMargins(), 8, &rowsLayout_);
    v->addLayout(stack_, 1);

    rebuildList();
}

void SnippetsPane::add()
{
    const QString trigger = trigger_->text().trimmed();
    const QString replacement = replacement_->text().trimmed();
    if (trigger.isEmpty() || replacement.isEmpty())
        return;  // keep what the user typed
    snippets_.append(Snippet{QUuid::createUuid(), trigger, replacement});
    SnippetStore::save(snippets_);
    trigger_->clear();
    replacement_->clear();
    rebuildList();
}

void SnippetsPane::remove(const QUuid& id)
{
    snippets_.removeIf([&](const Snippet& s) { return s.id == id; });
    SnippetStore::save(snippets_);
    rebuildList();
}

void SnippetsPane::rebuildList()
{
    removeRowsLater(rowsLayout_);
    for (const Snippet& snippet : snippets_) {
        auto* row = new Card(10, 0.1);
        row->setObjectName(QStringLiteral("snippetRow"));
        auto* h = new QHBoxLayout(row);
        h->setContentsMargins(10, 10, 10, 10);
        h->setSpacing(10);
        auto* texts = new QVBoxLayout;
        texts->setSpacing(2);
        auto* trigger = new QLabel(QStringLiteral("snippet ") + snippet.trigger);
        trigger->setFont(Theme::font(Theme::TextStyle::callout, QFont::Medium));
        Theme::setTextColor(trigger, brandGreen());
        trigger->setTextFormat(Qt::PlainText);
        auto* replacement = new QLabel(snippet.replacement);
        replacement->setTextFormat(Qt::PlainText);
        replacement->setFont(Theme::font(Theme::TextStyle::callout));
        Theme::setTextColor(replacement, Theme::secondaryText());
        replacement->setWordWrap(true);  // long or multi-line replacements show in full
        texts->addWidget(trigger);
        texts->addWidget(replacement);
        h->addLayout(texts, 1);
        QToolButton* trash = symbolButton(Theme::Symbol::trash, Theme::secondaryText(), 16, QStringLiteral("Delete"));
        trash->setObjectName(QStringLiteral("deleteSnippetButton"));
        h->addWidget(trash, 0, Qt::AlignTop);
        const QUuid id = snippet.id;
        connect(trash, &QToolButton::clicked, this, [this, id] { remove(id); });
        rowsLayout_->addWidget(row);
        row->show();
    }
    rowsLayout_->addStretch(1);
    stack_->setCurrentIndex(snippets_.isEmpty() ? 0 : 1);
}
