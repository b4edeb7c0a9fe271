#include "KrLogging_p.h"

Q_LOGGING_CATEGORY(lcKrutils, "krutils")

namespace KrLogging {

namespace {

// Calls `visit(index, character, angles, parens)` for every character, with the depths of the
// template brackets and parentheses around it (a bracket counts as inside itself), so that spaces
// and brackets inside "QMap<QString, int>" or
// "<lambda(int)>" are told apart from the ones that separate a return type or parameters.
template<typename Visit> void walkNesting(const QByteArray &text, Visit visit)
{
    int angles = 0;
    int parens = 0;
    for (int i = 0; i < text.size(); ++i) {
        const char c = text.at(i);
        if (c == '(')
            ++parens;
        else if (c == '<' && parens == 0)
            ++angles;
        visit(i, c, angles, parens);
        if (c == ')' && parens > 0)
            --parens;
        else if (c == '>' && angles > 0 && parens == 0)
            --angles;
    }
}

} // namespace

QByteArray qualifiedFunctionName(const char *prettyFunction)
{
    QByteArray text(prettyFunction);
    const QByteArray anonymous("`anonymous-namespace'");
    text.replace("{anonymous}", anonymous); // g++
    text.replace("(anonymous namespace)", anonymous); // clang

    // The name ends where its parameter list opens and starts after the last top-level space
    // before that (return types and "virtual"/"static" come first).
    int paramsAt = -1;
    int nameAt = 0;
    walkNesting(text, [&](int i, char c, int angles, int parens) {
        if (paramsAt >= 0 || angles > 0)
            return;
        if (c == '(' && parens == 1)
            paramsAt = i;
        else if (c == ' ' && parens == 0)
            nameAt = i + 1;
    });
    if (paramsAt < 0)
        return text;

    // Keep the name and whatever qualifies it further ("::<lambda()>"), without any parameter
    // list, up to the first top-level space (" const", " [with T = int]").
    QByteArray name;
    name.reserve(text.size() - nameAt);
    bool done = false;
    walkNesting(text.mid(nameAt), [&](int, char c, int angles, int parens) {
        if (done)
            return;
        if (angles == 0 && parens > 0)
            return; // a parameter list
        if (angles == 0 && c == ' ')
            done = true;
        else
            name.append(c);
    });
    return name;
}

} // namespace KrLogging
