#pragma once
// An upper bound on the work of glslang's preprocessor for one source, found before glslang sees
// it. glslang puts no limit on macro expansion: forty lines of doubling macros ask it for 2^40
// tokens, and it builds them until the machine runs out of memory.
//
// The bound counts every token the preprocessor would produce: the text's own tokens, each
// object-like macro's expansion, each function-like macro's expansion with its arguments
// substituted as often as its body names them (and each argument's own expansion once, since
// glslang expands every argument before substituting it). Every #define counts, whichever
// branch of a conditional it sits in, and a name defined twice counts with its larger
// definition. What cannot be known without expanding (a parameter used as a macro's name, a
// pasted token, an expansion that ends in a function-like macro's name) counts as the largest
// macro of the source would. Comments and line continuations are handled as the preprocessor
// does; #undef is ignored.

#include <cstdint>
#include <string>
#include <string_view>

namespace brisvale {

struct MacroExpansionCheck {
    bool withinLimit = true;
    // When not: where the bound first passed the limit (1-based line of the source; 0 when the
    // definitions themselves are the reason), and why, as one line.
    std::uint32_t line = 0;
    std::string reason;
};

// Cheap (linear in the source and its definitions); allocates only for the definitions.
MacroExpansionCheck checkMacroExpansion(std::string_view source, double maxTokens);

} // namespace brisvale
