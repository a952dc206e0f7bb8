#pragma once

#include "text/SnippetStore.h"

#include <QList>
#include <QWidget>

class QLineEdit;
class QScrollArea;
class QStackedLayout;
class QVBoxLayout;

// The second Settings tab: add a snippet (trigger and replacement) and delete stored ones. Every
// change is saved through SnippetStore at once; there is no editing in place.
class SnippetsPane final : public QWidget {
    Q_OBJECT
public:
    explicit SnippetsPane(QWidget* parent = nullptr);

    const QList<Snippet>& snippets() const { return snippets_; }
    void add();
    void remove(const QUuid& id);

private:
    void rebuildList();

    QList<Snippet> snippets_;
    QLineEdit* trigger_;
    QLineEdit* replacement_;
    QStackedLayout* stack_;
    QVBoxLayout* rowsLayout_;
};
