#pragma once

#include <QString>
#include <QStringList>

// The text arithmetic of typing while the user speaks. Everything counts user-perceived characters
// (grapheme clusters); two characters are equal when canonically equivalent.
namespace LiveTyping {

struct Reconciliation {
    int deleteCount = 0;
    QString insert;
    bool operator==(const Reconciliation&) const = default;
};

// What to type so the screen grows towards target (never deletes).
QString appendDelta(const QString& screen, const QString& target);
// How many characters to erase from the end of screen, and what to type then, to show finalText.
Reconciliation reconcile(const QString& screen, const QString& finalText);

QStringList characters(const QString& text);
int characterCount(const QString& text);

}  // namespace LiveTyping
