#include "keyboard/TextKeysyms.h"

namespace TextKeysyms {

unsigned long forCodePoint(char32_t cp)
{
    if (cp == U'\n' || cp == U'\r' || cp == 0x2028 || cp == 0x2029)
        return returnKeysym;
    if (cp == U'\t')
        return tabKeysym;
    if (cp < 0x20 || (cp >= 0x7f && cp < 0xa0) || (cp >= 0xd800 && cp <= 0xdfff) || cp > 0x10ffff)
        return 0;
    if (cp <= 0xff)
        return cp;
    return 0x01000000UL + cp;
}

std::vector<TextKey> keysOf(const QString& text)
{
    std::vector<TextKey> out;
    out.reserve(static_cast<size_t>(text.size()));
    const qsizetype n = text.size();
    for (qsizetype i = 0; i < n; ++i) {
        const qsizetype start = i;
        const char16_t u = text.at(i).unicode();
        char32_t cp = u;
        if (QChar::isHighSurrogate(u) && i + 1 < n && QChar::isLowSurrogate(text.at(i + 1).unicode())) {
            cp = QChar::surrogateToUcs4(u, text.at(i + 1).unicode());
            ++i;
        } else if (u == u'\r' && i + 1 < n && text.at(i + 1) == QLatin1Char('\n')) {
            ++i;  // one line break
        }
        if (const unsigned long ks = forCodePoint(cp))
            out.push_back({ks, text.mid(start, i - start + 1)});
    }
    return out;
}

std::vector<unsigned long> fromText(const QString& text)
{
    std::vector<unsigned long> out;
    for (const TextKey& k : keysOf(text))
        out.push_back(k.keysym);
    return out;
}

}  // namespace TextKeysyms
