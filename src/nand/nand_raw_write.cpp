#include "nand/nand_raw_write.h"

#include "common/holders.h"

#include <cctype>
#include <cstring>

namespace {

// Tokens of /proc/mtd are read into buffers of this size; a longer token is read whole but
// never taken as a device or a partition name.
constexpr size_t kTokenSize = 64;
constexpr size_t kMaxDeviceDigits = kMtdDeviceNameSize - 4; // "mtd" and the NUL

enum class Token { Fits, TooLong, End };

// Reads the next blank-separated token into buf.
Token next_token(FILE *file, char *buf, size_t size) {
    int c;
    do {
        c = getc(file);
    } while (c != EOF && isspace(c));
    if (c == EOF)
        return Token::End;
    size_t length = 0;
    bool fits = true;
    for (; c != EOF && !isspace(c); c = getc(file)) {
        if (length + 1 < size)
            buf[length++] = static_cast<char>(c);
        else
            fits = false;
    }
    buf[length] = '\0';
    return fits ? Token::Fits : Token::TooLong;
}

// "mtd12:" -> "mtd12". False unless the token is "mtd", one to four digits and an optional
// colon: a partition is never addressed by a shortened or malformed name.
bool device_name_of(const char *token, char *device) {
    size_t digits = strspn(token + 3, "0123456789");
    const char *rest = token + 3 + digits;
    if (digits == 0 || digits > kMaxDeviceDigits || !(rest[0] == '\0' || strcmp(rest, ":") == 0))
        return false;
    memcpy(device, token, 3 + digits);
    device[3 + digits] = '\0';
    return true;
}

} // namespace

int check_mtdname_in(FILE *proc_mtd, const char *wanted, char *device) {
    char token[kTokenSize];
    Token read;
    while ((read = next_token(proc_mtd, token, sizeof token)) != Token::End) {
        if (strncmp(token, "mtd", 3) != 0)
            continue;
        char candidate[kMtdDeviceNameSize];
        bool usable = read == Token::Fits && device_name_of(token, candidate);
        // Size and erase size are not used; the third token is the name, in double quotes.
        for (int i = 0; i < 3; ++i) {
            read = next_token(proc_mtd, token, sizeof token);
            if (read == Token::End)
                return 0;
        }
        if (usable && read == Token::Fits && strstr(token, wanted) != nullptr) {
            memcpy(device, candidate, sizeof candidate);
            return 1;
        }
    }
    return 0;
}

int check_mtdname(const char *wanted, char *device) {
    UniqueFile proc_mtd(fopen("/proc/mtd", "r"));
    if (!proc_mtd) {
        fflush(stdout);
        perror("open /proc/mtd");
        return 0;
    }
    return check_mtdname_in(proc_mtd.get(), wanted, device);
}
