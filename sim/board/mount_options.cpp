#include "board/mount_options.h"

#include <cerrno>
#include <span>
#include <sys/mount.h>

namespace tvsim {

namespace {

enum class Value {
    kNone,    // a bare word: "quiet"
    kDecimal, // "codepage=437"
    kOctal,   // "umask=022"
    kChoice,  // one of the listed words: "shortname=winnt"
    kText,    // any non-empty text: "iocharset=utf8"
};

struct Option {
    std::string_view name;
    Value value;
    std::span<const std::string_view> choices = {};
};

constexpr std::string_view kShortnames[] = {"lower", "win95", "winnt", "mixed"};
constexpr std::string_view kChecks[] = {"r", "n", "s", "relaxed", "normal", "strict"};
constexpr std::string_view kFatErrors[] = {"continue", "panic", "remount-ro"};
constexpr std::string_view kNfs[] = {"stale_rw", "nostale_ro"};
constexpr std::string_view kTimeZones[] = {"UTC"};
constexpr std::string_view kTruths[] = {"0", "1", "yes", "no", "true", "false"};
constexpr std::string_view kCompressors[] = {"none", "lzo", "zlib", "zstd"};
constexpr std::string_view kAssertActions[] = {"report", "read-only", "panic"};

// The options of the kernel's vfat driver (its own and those it shares with msdos).
constexpr Option kVfatOptions[] = {
    {.name = "uid", .value = Value::kDecimal},
    {.name = "gid", .value = Value::kDecimal},
    {.name = "umask", .value = Value::kOctal},
    {.name = "dmask", .value = Value::kOctal},
    {.name = "fmask", .value = Value::kOctal},
    {.name = "allow_utime", .value = Value::kOctal},
    {.name = "codepage", .value = Value::kDecimal},
    {.name = "iocharset", .value = Value::kText},
    {.name = "time_offset", .value = Value::kDecimal},
    {.name = "shortname", .value = Value::kChoice, .choices = kShortnames},
    {.name = "check", .value = Value::kChoice, .choices = kChecks},
    {.name = "errors", .value = Value::kChoice, .choices = kFatErrors},
    {.name = "nfs", .value = Value::kChoice, .choices = kNfs},
    {.name = "tz", .value = Value::kChoice, .choices = kTimeZones},
    {.name = "utf8", .value = Value::kChoice, .choices = kTruths},
    {.name = "utf8", .value = Value::kNone},
    {.name = "nfs", .value = Value::kNone},
    {.name = "quiet", .value = Value::kNone},
    {.name = "showexec", .value = Value::kNone},
    {.name = "debug", .value = Value::kNone},
    {.name = "sys_immutable", .value = Value::kNone},
    {.name = "flush", .value = Value::kNone},
    {.name = "usefree", .value = Value::kNone},
    {.name = "discard", .value = Value::kNone},
    {.name = "dos1xfloppy", .value = Value::kNone},
    {.name = "uni_xlate", .value = Value::kNone},
    {.name = "posix", .value = Value::kNone},
    {.name = "nonumtail", .value = Value::kNone},
    {.name = "rodir", .value = Value::kNone},
};

// The options of the kernel's UBIFS driver.
constexpr Option kUbifsOptions[] = {
    {.name = "fast_unmount", .value = Value::kNone},
    {.name = "norm_unmount", .value = Value::kNone},
    {.name = "bulk_read", .value = Value::kNone},
    {.name = "no_bulk_read", .value = Value::kNone},
    {.name = "chk_data_crc", .value = Value::kNone},
    {.name = "no_chk_data_crc", .value = Value::kNone},
    {.name = "compr", .value = Value::kChoice, .choices = kCompressors},
    {.name = "assert", .value = Value::kChoice, .choices = kAssertActions},
    {.name = "auth_key", .value = Value::kText},
    {.name = "auth_hash_name", .value = Value::kText},
};

// Words that every file system takes as mount flags.
struct FlagWord {
    std::string_view name;
    unsigned long set;
    unsigned long clear;
};
constexpr FlagWord kFlagWords[] = {
    {.name = "ro", .set = MS_RDONLY, .clear = 0},
    {.name = "rw", .set = 0, .clear = MS_RDONLY},
    {.name = "sync", .set = MS_SYNCHRONOUS, .clear = 0},
    {.name = "async", .set = 0, .clear = MS_SYNCHRONOUS},
    {.name = "dirsync", .set = MS_DIRSYNC, .clear = 0},
};

bool all_digits(std::string_view text, char highest) {
    if (text.empty())
        return false;
    for (char c : text) {
        if (c < '0' || c > highest)
            return false;
    }
    return true;
}

bool value_fits(const Option &option, std::string_view value) {
    switch (option.value) {
    case Value::kNone:
        return false; // a bare word given a value
    case Value::kDecimal:
        return all_digits(value.substr(!value.empty() && value[0] == '-'), '9');
    case Value::kOctal:
        return all_digits(value, '7');
    case Value::kChoice:
        for (std::string_view choice : option.choices) {
            if (choice == value)
                return true;
        }
        return false;
    case Value::kText:
        return !value.empty();
    }
    return false;
}

// True when one option (without its flags' words) is one the file system takes.
bool known_option(std::span<const Option> options, std::string_view word) {
    size_t equals = word.find('=');
    std::string_view name = word.substr(0, equals);
    for (const Option &option : options) {
        if (option.name != name)
            continue;
        if (equals == std::string_view::npos ? option.value == Value::kNone
                                             : value_fits(option, word.substr(equals + 1)))
            return true;
    }
    return false;
}

const FlagWord *flag_word(std::string_view word) {
    for (const FlagWord &f : kFlagWords) {
        if (f.name == word)
            return &f;
    }
    return nullptr;
}

} // namespace

int read_mount_options(std::string_view fstype, const char *data, unsigned long flags,
                       MountOptions *out) {
    std::span<const Option> options;
    if (fstype == "vfat")
        options = kVfatOptions;
    else if (fstype == "ubifs")
        options = kUbifsOptions;
    std::string own;
    std::string_view rest = data != nullptr ? data : "";
    while (!rest.empty()) {
        size_t comma = rest.find(',');
        std::string_view word = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? "" : rest.substr(comma + 1);
        if (word.empty())
            continue; // the kernel skips empty options
        if (const FlagWord *f = flag_word(word)) {
            flags = (flags | f->set) & ~f->clear;
            continue;
        }
        if (!known_option(options, word))
            return EINVAL;
        own += "," + std::string(word);
    }
    out->flags = flags;
    out->shown = (flags & MS_RDONLY) != 0 ? "ro" : "rw";
    if ((flags & MS_SYNCHRONOUS) != 0)
        out->shown += ",sync";
    if ((flags & MS_DIRSYNC) != 0)
        out->shown += ",dirsync";
    out->shown += own;
    return 0;
}

} // namespace tvsim
