#pragma once

#include "core/foundation/Error.h"
#include "core/foundation/YamlMark.h"

#include <string>

namespace quorlin {

class YamlError : public Error {
public:
    enum class Kind {
        syntax,
        multipleDocuments,
        undefinedAlias,
        duplicateKey,
        unsupportedKey,
        invalidMerge,
        tooDeep,
        tooManyAliasNodes,
    };

    // detail: the parser's problem text for syntax, the alias name for undefinedAlias,
    // the key for duplicateKey, the kind of node found ("sequence", "mapping", "scalar")
    // for unsupportedKey and invalidMerge; unused otherwise.
    YamlError(Kind kind, std::string detail, YamlMark mark);

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }
    const YamlMark& mark() const { return mark_; }

private:
    Kind kind_;
    std::string detail_;
    YamlMark mark_;
};

} // namespace quorlin
