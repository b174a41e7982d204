#pragma once

// The libarchive plumbing shared by the reading and the writing side of Archive.h.

#include <locale.h>
#include <memory>
#include <string>

#include <archive.h>
#include <archive_entry.h>

namespace quorlin::archive_support {

struct ArchiveFree {
    void operator()(archive* handle) const {
        // Freeing also closes; the result is checked by an explicit close where it matters.
        archive_free(handle);
    }
};
struct EntryFree {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using ArchiveHandle = std::unique_ptr<archive, ArchiveFree>;
using EntryHandle = std::unique_ptr<archive_entry, EntryFree>;

// libarchive converts names through the calling thread's locale, and in the "C" locale a
// UTF-8 name can't be converted and is lost. Each call therefore runs in a UTF-8 locale,
// on this thread only.
class Utf8LocaleScope {
public:
    Utf8LocaleScope() : locale_(newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{})) {
        if (locale_ != locale_t{}) {
            previous_ = uselocale(locale_);
        }
    }
    ~Utf8LocaleScope() {
        if (locale_ != locale_t{}) {
            uselocale(previous_);
            freelocale(locale_);
        }
    }
    Utf8LocaleScope(const Utf8LocaleScope&) = delete;
    Utf8LocaleScope& operator=(const Utf8LocaleScope&) = delete;

private:
    locale_t locale_;
    locale_t previous_{};
};

inline std::string errorText(archive* handle) {
    const char* text = archive_error_string(handle);
    return text != nullptr ? text : "unknown error";
}

} // namespace quorlin::archive_support
