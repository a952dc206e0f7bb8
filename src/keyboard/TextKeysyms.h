#pragma once

#include <QString>

#include <vector>

// X keysyms for text, one per character typed. Latin-1 characters have keysyms equal to their code
// point; every other Unicode character has the keysym 0x01000000 + code point.
namespace TextKeysyms {

inline constexpr unsigned long returnKeysym = 0xff0d;
inline constexpr unsigned long tabKeysym = 0xff09;
inline constexpr unsigned long backSpaceKeysym = 0xff08;

// 0 for characters that cannot be typed (controls other than line breaks and tab, surrogates).
unsigned long forCodePoint(char32_t cp);

// The keysyms of `text` in order: surrogate pairs become one keysym, "\r\n", "\n", "\r", U+2028 and
// U+2029 become Return, a tab Tab. Characters that cannot be typed are left out.
std::vector<unsigned long> fromText(const QString& text);

// The same, each keysym with the characters it stands for (for a backend that pastes what it cannot type).
struct TextKey {
    unsigned long keysym;
    QString text;
};
std::vector<TextKey> keysOf(const QString& text);

}  // namespace TextKeysyms
