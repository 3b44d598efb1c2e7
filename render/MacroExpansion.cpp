// The bound on a source's macro expansion (see MacroExpansion.h).
//
// Each macro gets a summary: how many tokens its expansion puts out and how many it takes to
// make them, as linear functions of the sizes of its arguments (a function-like macro that names
// its parameter twice doubles that argument). Summaries are built from the definitions' bodies,
// macros inside them included, and then applied to the text in order.
//
// [SECTION] Logical lines
// [SECTION] Tokens
// [SECTION] Definitions
// [SECTION] Linear sizes
// [SECTION] Evaluation
// [SECTION] Check

#include "render/MacroExpansion.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <unordered_map>
#include <vector>

namespace brisvale {
namespace {

// Deeper nesting of macro references or calls than any real shader has; also what keeps the
// evaluation's own recursion short.
constexpr int kMaxNesting = 200;
// Sizes saturate here instead of overflowing.
constexpr double kSaturated = 1e300;
// Later passes let macros that call through parameters or pasted names take on the largest
// macro's size; a few rounds settle every real source.
constexpr int kPasses = 3;

// ---------------------------------------------------------------------------------------------
// [SECTION] Logical lines
// ---------------------------------------------------------------------------------------------

// The source with comments replaced by a space and line continuations removed, one logical line
// per '\n', each with the physical line it starts on.
struct LogicalText {
    std::string text;
    std::vector<std::uint32_t> lineStarts;  // offsets into text
    std::vector<std::uint32_t> physicalLines;
};

LogicalText logicalText(std::string_view source) {
    LogicalText out;
    out.text.reserve(source.size());
    std::uint32_t line = 1;
    out.lineStarts.push_back(0);
    out.physicalLines.push_back(line);
    const auto continuationAt = [&](std::size_t i) -> std::size_t {  // its length, or 0
        if (source[i] != '\\') return 0;
        if (i + 1 < source.size() && source[i + 1] == '\n') return 2;
        if (i + 2 < source.size() && source[i + 1] == '\r' && source[i + 2] == '\n') return 3;
        return 0;
    };
    std::size_t i = 0;
    while (i < source.size()) {
        if (const std::size_t length = continuationAt(i)) {
            i += length;
            ++line;
            continue;
        }
        const char c = source[i];
        if (c == '/' && i + 1 < source.size() && source[i + 1] == '/') {
            // To the end of the line; a continuation carries the comment on.
            while (i < source.size() && source[i] != '\n') {
                if (const std::size_t length = continuationAt(i)) {
                    i += length;
                    ++line;
                } else {
                    ++i;
                }
            }
            continue;
        }
        if (c == '/' && i + 1 < source.size() && source[i + 1] == '*') {
            i += 2;
            while (i < source.size() && !(source[i] == '*' && i + 1 < source.size() && source[i + 1] == '/')) {
                if (source[i] == '\n') ++line;
                ++i;
            }
            i = std::min(source.size(), i + 2);
            out.text += ' ';
            continue;
        }
        if (c == '\n') {
            out.text += '\n';
            ++line;
            out.lineStarts.push_back(static_cast<std::uint32_t>(out.text.size()));
            out.physicalLines.push_back(line);
            ++i;
            continue;
        }
        out.text += c;
        ++i;
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Tokens
// ---------------------------------------------------------------------------------------------

enum class Kind { Identifier, Other, Hash, Paste, LeftParen, RightParen, Comma };

struct Token {
    Kind kind = Kind::Other;
    std::string_view text;
    std::uint32_t line = 0;
    bool spaceBefore = false;
};

bool isIdentifierStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isIdentifierPart(char c) {
    return isIdentifierStart(c) || (c >= '0' && c <= '9');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// One logical line's tokens. Operators of several characters count as several tokens, which
// only makes the bound larger.
void tokenize(std::string_view line, std::uint32_t physicalLine, std::vector<Token>& out) {
    std::size_t i = 0;
    bool space = false;
    while (i < line.size()) {
        const char c = line[i];
        if (c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f') {
            space = true;
            ++i;
            continue;
        }
        const std::size_t start = i;
        Kind kind = Kind::Other;
        if (isIdentifierStart(c)) {
            while (i < line.size() && isIdentifierPart(line[i])) ++i;
            kind = Kind::Identifier;
        } else if (isDigit(c) || (c == '.' && i + 1 < line.size() && isDigit(line[i + 1]))) {
            ++i;
            while (i < line.size()) {
                const char d = line[i];
                const bool exponentSign = (d == '+' || d == '-') &&
                                          (line[i - 1] == 'e' || line[i - 1] == 'E');
                if (!isIdentifierPart(d) && d != '.' && !exponentSign) break;
                ++i;
            }
        } else if (c == '#' && i + 1 < line.size() && line[i + 1] == '#') {
            i += 2;
            kind = Kind::Paste;
        } else {
            ++i;
            kind = c == '#' ? Kind::Hash : c == '(' ? Kind::LeftParen : c == ')' ? Kind::RightParen
                 : c == ',' ? Kind::Comma : Kind::Other;
        }
        out.push_back(Token{kind, line.substr(start, i - start), physicalLine, space});
        space = false;
    }
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Definitions
// ---------------------------------------------------------------------------------------------

struct Definition {
    bool function = false;
    std::vector<std::string_view> parameters;
    std::vector<Token> body;
};

// What the preprocessor sees: the definitions, the text it expands, and the expressions of
// #if and #elif (expanded as well).
struct Source {
    std::unordered_map<std::string_view, std::vector<Definition>> definitions;
    std::vector<Token> text;
    std::vector<std::vector<Token>> conditions;
};

// A malformed definition is glslang's to report; here it is simply left out.
void addDefinition(std::span<const Token> tokens, Source& source) {
    if (tokens.empty() || tokens[0].kind != Kind::Identifier) return;
    Definition definition;
    std::size_t i = 1;
    if (i < tokens.size() && tokens[i].kind == Kind::LeftParen && !tokens[i].spaceBefore) {
        definition.function = true;
        ++i;
        while (i < tokens.size() && tokens[i].kind != Kind::RightParen) {
            if (tokens[i].kind == Kind::Identifier) definition.parameters.push_back(tokens[i].text);
            ++i;
        }
        if (i == tokens.size()) return;
        ++i;
    }
    definition.body.assign(tokens.begin() + static_cast<std::ptrdiff_t>(i), tokens.end());
    source.definitions[tokens[0].text].push_back(std::move(definition));
}

Source readSource(const LogicalText& logical) {
    Source source;
    std::vector<Token> line;
    for (std::size_t n = 0; n < logical.lineStarts.size(); ++n) {
        const std::size_t begin = logical.lineStarts[n];
        const std::size_t end = n + 1 < logical.lineStarts.size() ? logical.lineStarts[n + 1] - 1 : logical.text.size();
        line.clear();
        tokenize(std::string_view(logical.text).substr(begin, end - begin), logical.physicalLines[n], line);
        if (line.empty()) continue;
        if (line[0].kind != Kind::Hash) {
            source.text.insert(source.text.end(), line.begin(), line.end());
            continue;
        }
        if (line.size() < 2) continue;
        const std::string_view directive = line[1].text;
        const std::span<const Token> rest(line.begin() + 2, line.end());
        if (directive == "define") {
            addDefinition(rest, source);
        } else if (directive == "if" || directive == "elif") {
            source.conditions.emplace_back(rest.begin(), rest.end());
        }
    }
    return source;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Linear sizes
// ---------------------------------------------------------------------------------------------

double add(double a, double b) {
    return std::min(a + b, kSaturated);
}
double multiply(double a, double b) {
    if (a == 0.0 || b == 0.0) return 0.0;
    return std::min(a * b, kSaturated);
}

// Sizes of a piece of expansion inside a macro's body, linear in the sizes (tokens put out) of
// that macro's arguments: `out` tokens put out, `work` tokens made along the way (at least out).
struct Linear {
    explicit Linear(std::size_t parameters = 0) : outPer(parameters, 0.0), workPer(parameters, 0.0) {}
    double out = 0.0;
    double work = 0.0;
    std::vector<double> outPer;
    std::vector<double> workPer;
    bool endsInCallee = false;  // its last token may name a function-like macro
    bool opensCall = false;     // it leaves a call open: what follows it becomes that call's argument

    void addPlain(double tokens) {
        out = add(out, tokens);
        work = add(work, tokens);
    }
};

// A macro's summary: its expansion's sizes in terms of its arguments' sizes.
struct Summary {
    double out = 0.0;
    double work = 0.0;
    std::vector<double> outPer;
    std::vector<double> workPer;
    bool endsInCallee = false;
    bool opensCall = false;

    double outFor(std::size_t argument) const { return coefficient(outPer, argument); }
    double workFor(std::size_t argument) const { return coefficient(workPer, argument); }

private:
    // Arguments beyond the parameters (glslang refuses the call) count as the largest one.
    static double coefficient(const std::vector<double>& per, std::size_t argument) {
        if (argument < per.size()) return per[argument];
        return per.empty() ? 0.0 : *std::max_element(per.begin(), per.end());
    }
};

bool sameSizes(const Summary& a, const Summary& b) {
    return a.out == b.out && a.work == b.work && a.outPer == b.outPer && a.workPer == b.workPer;
}

// The larger of two summaries, term by term.
void widen(Summary& into, const Summary& other) {
    into.out = std::max(into.out, other.out);
    into.work = std::max(into.work, other.work);
    if (into.outPer.size() < other.outPer.size()) {
        into.outPer.resize(other.outPer.size(), 0.0);
        into.workPer.resize(other.workPer.size(), 0.0);
    }
    for (std::size_t i = 0; i < other.outPer.size(); ++i) {
        into.outPer[i] = std::max(into.outPer[i], other.outPer[i]);
        into.workPer[i] = std::max(into.workPer[i], other.workPer[i]);
    }
    into.endsInCallee = into.endsInCallee || other.endsInCallee;
    into.opensCall = into.opensCall || other.opensCall;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Evaluation
// ---------------------------------------------------------------------------------------------

struct Group {
    std::vector<std::span<const Token>> arguments;
    std::size_t end = 0;     // index after the closing parenthesis
    bool balanced = true;    // false: the call goes on past the end of this piece of text
};

// The parenthesised argument list that starts at tokens[open].
Group argumentGroup(std::span<const Token> tokens, std::size_t open) {
    Group group;
    int depth = 0;
    std::size_t argumentStart = open + 1;
    for (std::size_t i = open; i < tokens.size(); ++i) {
        const Kind kind = tokens[i].kind;
        if (kind == Kind::LeftParen) {
            ++depth;
        } else if (kind == Kind::RightParen && --depth == 0) {
            group.arguments.push_back(tokens.subspan(argumentStart, i - argumentStart));
            group.end = i + 1;
            return group;
        } else if (kind == Kind::Comma && depth == 1) {
            group.arguments.push_back(tokens.subspan(argumentStart, i - argumentStart));
            argumentStart = i + 1;
        }
    }
    group.arguments.push_back(tokens.subspan(std::min(argumentStart, tokens.size())));
    group.end = tokens.size();
    group.balanced = false;
    return group;
}

class Estimator {
public:
    explicit Estimator(const Source& source) : source_(source) {
        for (const auto& [name, definitions] : source.definitions) {
            Entry entry;
            for (const Definition& definition : definitions) {
                (definition.function ? entry.hasFunction : entry.hasObject) = true;
            }
            entries_.emplace(name, std::move(entry));
        }
    }

    // Summaries of every macro, in rounds: each round lets the unknowable cases take the largest
    // macro of the round before.
    void summarise() {
        largestObject_ = Summary{1.0, 1.0, {}, {}, true};
        largestFunction_ = Summary{1.0, 1.0, {1.0}, {1.0}, true};
        for (int pass = 0; pass < kPasses; ++pass) {
            for (auto& [name, entry] : entries_) entry.objectState = entry.functionState = State::Pending;
            Summary object = largestObject_;
            Summary function = largestFunction_;
            for (auto& [name, entry] : entries_) {
                if (entry.hasObject) widen(object, summary(name, entry, false, 0));
                if (entry.hasFunction) widen(function, summary(name, entry, true, 0));
            }
            const bool settled = sameSizes(object, largestObject_) && sameSizes(function, largestFunction_);
            largestObject_ = object;
            largestFunction_ = function;
            if (settled && pass > 0) break;
        }
    }

    // Work for the text in order; stops at the first token where it passes `limit`.
    struct Total {
        double work = 0.0;
        const Token* passedAt = nullptr;
    };
    Total total(double limit) {
        Total result;
        const auto count = [&](std::span<const Token> tokens) {
            if (result.passedAt) return;
            Progress progress{std::max(0.0, limit - result.work), nullptr};
            result.work = add(result.work, evaluate(tokens, {}, 0, &progress).work);
            result.passedAt = progress.passedAt;
        };
        for (const auto& condition : source_.conditions) count(condition);
        count(source_.text);
        return result;
    }

    bool tooDeep() const { return tooDeep_; }

private:
    enum class State { Pending, Running, Done };
    struct Entry {
        bool hasObject = false;
        bool hasFunction = false;
        State objectState = State::Pending;
        State functionState = State::Pending;
        Summary object;
        Summary function;
    };
    struct Progress {
        double limit;
        const Token* passedAt;
    };

    const Summary& summary(std::string_view name, Entry& entry, bool function, int depth) {
        State& state = function ? entry.functionState : entry.objectState;
        Summary& result = function ? entry.function : entry.object;
        if (state == State::Done) return result;
        state = State::Running;
        Summary widest;
        for (const Definition& definition : source_.definitions.at(name)) {
            if (definition.function != function) continue;
            const Linear body = evaluate(definition.body, definition.parameters, depth + 1, nullptr);
            widen(widest, Summary{body.out, body.work, body.outPer, body.workPer, body.endsInCallee, body.opensCall});
        }
        result = std::move(widest);
        state = State::Done;
        return result;
    }

    // Applies a function-like summary to a call's arguments, evaluated in the caller's context.
    void applyCall(Linear& into, const Summary& callee, const Group& group,
                   std::span<const std::string_view> parameters, int depth) {
        into.out = add(into.out, callee.out);
        into.work = add(into.work, callee.work);
        for (std::size_t a = 0; a < group.arguments.size(); ++a) {
            const Linear argument = evaluate(group.arguments[a], parameters, depth + 1, nullptr);
            const double outFactor = callee.outFor(a);
            const double workFactor = callee.workFor(a);
            into.out = add(into.out, multiply(outFactor, argument.out));
            // The argument is expanded once on its own, then copied where the body names it.
            into.work = add(into.work, add(multiply(workFactor, argument.out), argument.work));
            for (std::size_t p = 0; p < into.outPer.size(); ++p) {
                into.outPer[p] = add(into.outPer[p], multiply(outFactor, argument.outPer[p]));
                into.workPer[p] =
                    add(into.workPer[p], add(multiply(workFactor, argument.outPer[p]), argument.workPer[p]));
            }
        }
        if (!group.balanced) into.opensCall = true;
    }

    Linear evaluate(std::span<const Token> tokens, std::span<const std::string_view> parameters, int depth,
                    Progress* progress) {
        Linear result(parameters.size());
        if (depth > kMaxNesting) {
            tooDeep_ = true;
            result.out = result.work = kSaturated;
            return result;
        }
        const Token* named = nullptr;  // the last name met: what a report names
        bool pendingCallee = false;  // the expansion just counted may end in a function-like name
        std::size_t i = 0;
        while (i < tokens.size()) {
            const Token& token = tokens[i];
            const bool callFollows = i + 1 < tokens.size() && tokens[i + 1].kind == Kind::LeftParen;
            const bool last = i + 1 == tokens.size();
            if (token.kind == Kind::Identifier) named = &token;
            bool opensCall = false;
            if (pendingCallee && token.kind == Kind::LeftParen) {
                const Group group = argumentGroup(tokens, i);
                applyCall(result, largestFunction_, group, parameters, depth);
                pendingCallee = false;
                i = group.end;
            } else if (token.kind == Kind::Paste) {
                // The pasted token may name any macro.
                result.addPlain(1.0);
                result.out = add(result.out, largestObject_.out);
                result.work = add(result.work, largestObject_.work);
                pendingCallee = true;
                opensCall = largestObject_.opensCall;
                ++i;
            } else if (token.kind != Kind::Identifier) {
                result.addPlain(1.0);
                pendingCallee = false;
                ++i;
            } else if (const auto at = std::find(parameters.begin(), parameters.end(), token.text);
                       at != parameters.end()) {
                const std::size_t p = static_cast<std::size_t>(at - parameters.begin());
                result.outPer[p] = add(result.outPer[p], 1.0);
                result.workPer[p] = add(result.workPer[p], 1.0);
                // The argument may be (or end in) a function-like macro's name.
                pendingCallee = true;
                ++i;
            } else {
                pendingCallee = false;
                const auto found = entries_.find(token.text);
                Entry* entry = found == entries_.end() ? nullptr : &found->second;
                bool expanded = false;
                if (entry && entry->hasFunction && callFollows && entry->functionState != State::Running) {
                    const Summary& callee = summary(token.text, *entry, true, depth);
                    const Group group = argumentGroup(tokens, i + 1);
                    applyCall(result, callee, group, parameters, depth);
                    pendingCallee = callee.endsInCallee;
                    opensCall = callee.opensCall;
                    i = group.end;
                    expanded = true;
                }
                if (entry && entry->hasObject && entry->objectState != State::Running) {
                    // Both forms count where a name has both (in different branches).
                    const Summary& object = summary(token.text, *entry, false, depth);
                    result.out = add(result.out, object.out);
                    result.work = add(result.work, object.work);
                    pendingCallee = pendingCallee || object.endsInCallee;
                    opensCall = opensCall || object.opensCall;
                    if (!expanded) ++i;
                    expanded = true;
                }
                if (!expanded) {
                    // A plain name, or a macro inside its own expansion (which glslang leaves).
                    result.addPlain(1.0);
                    pendingCallee = entry && entry->hasFunction && last;
                    ++i;
                }
            }
            if (opensCall && i < tokens.size()) {
                // Everything after an open call is its argument.
                Group rest;
                rest.arguments.push_back(tokens.subspan(i));
                rest.end = tokens.size();
                rest.balanced = false;
                applyCall(result, largestFunction_, rest, parameters, depth);
                i = tokens.size();
            } else if (opensCall) {
                result.opensCall = true;
            }
            if (progress && result.work > progress->limit && !progress->passedAt) {
                progress->passedAt = named ? named : &token;
                return result;
            }
        }
        if (pendingCallee) result.endsInCallee = true;
        return result;
    }

    const Source& source_;
    std::unordered_map<std::string_view, Entry> entries_;
    Summary largestObject_;
    Summary largestFunction_;
    bool tooDeep_ = false;
};

std::string formatTokens(double tokens) {
    return std::to_string(static_cast<std::uint64_t>(tokens));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Check
// ---------------------------------------------------------------------------------------------

MacroExpansionCheck checkMacroExpansion(std::string_view sourceText, double maxTokens) {
    const LogicalText logical = logicalText(sourceText);
    const Source source = readSource(logical);
    Estimator estimator(source);
    estimator.summarise();
    const Estimator::Total total = estimator.total(maxTokens);
    MacroExpansionCheck check;
    if (estimator.tooDeep()) {
        check.withinLimit = false;
        check.reason = "macros nest more than " + std::to_string(kMaxNesting) + " deep";
    } else if (total.work > maxTokens) {
        check.withinLimit = false;
        check.reason = "macro expansion exceeds " + formatTokens(maxTokens) + " tokens";
    }
    if (!check.withinLimit && total.passedAt) {
        check.line = total.passedAt->line;
        if (total.passedAt->kind == Kind::Identifier)
            check.reason = "'" + std::string(total.passedAt->text) + "' : " + check.reason;
    }
    return check;
}

} // namespace brisvale
