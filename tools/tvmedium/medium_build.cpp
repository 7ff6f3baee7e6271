#include "medium_build.h"

#include "common/holders.h"
#include "medium_check.h"
#include "run/flashimg.h"
#include "tvmicro/tvm_update.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr size_t kRecordBytes = 32; // data bytes per S-record

struct Bank {
    std::string file;
    uint32_t address = 0;
    bool set = false;
};

struct EepromSource {
    const EepromKind *kind;
    std::string file;
    std::string version;
};

struct Description {
    std::string model;
    std::vector<std::string> list;
    std::vector<std::string> mode;
    long version = -1;
    long id = -1;
    Bank banks[2];
    std::vector<EepromSource> eeproms;
    std::vector<std::pair<std::string, std::string>> files;
};

bool fail(const std::string &why) {
    fprintf(stderr, "tvmedium build: %s\n", why.c_str());
    return false;
}

bool read_binary(const fs::path &path, std::vector<uint8_t> *bytes) {
    UniqueFile f(fopen(path.c_str(), "rb"));
    if (!f)
        return fail("cannot read " + path.string());
    bytes->clear();
    uint8_t chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f.get())) > 0)
        bytes->insert(bytes->end(), chunk, chunk + n);
    return true;
}

bool parse_number(const std::string &text, int base, long *value) {
    char *end = nullptr;
    errno = 0;
    *value = strtol(text.c_str(), &end, base);
    return !text.empty() && errno == 0 && *end == '\0' && *value >= 0;
}

bool parse_line(Description &d, const fs::path &base, const std::string &line, int number) {
    std::istringstream in(line);
    std::string key;
    in >> key;
    std::string rest;
    std::getline(in >> std::ws, rest);
    std::istringstream args(rest);
    std::string a, b, c;
    args >> a >> b;
    std::getline(args >> std::ws, c);
    auto bad = [&](const char *why) {
        return fail(format("line %d: %s: %s", number, why, line.c_str()));
    };
    if (key == "model")
        d.model = a;
    else if (key == "list")
        d.list.push_back(rest);
    else if (key == "mode")
        d.mode.push_back(rest);
    else if (key == "firmware-version" || key == "firmware-id") {
        long &value = key == "firmware-version" ? d.version : d.id;
        if (!parse_number(a, 16, &value) || value > 0xFF)
            return bad("not a hexadecimal byte");
        if (key == "firmware-version" && value == 0xFF)
            return bad("version FF would install over every version");
    } else if (key == "bank1" || key == "bank2") {
        long address = 0;
        if (!parse_number(b, 0, &address) || address > 0xFFFFFF)
            return bad("expected FILE ADDRESS (24 bits)");
        d.banks[key == "bank1" ? 0 : 1] = {(base / a).string(), static_cast<uint32_t>(address),
                                           true};
    } else if (key == "eeprom") {
        const EepromKind *kind = find_eeprom_kind(a.c_str());
        if (kind == nullptr || b.empty())
            return bad("expected a known EEPROM component and a file");
        d.eeproms.push_back({kind, (base / b).string(), c});
    } else if (key == "file") {
        if (a.empty() || b.empty())
            return bad("expected SOURCE TARGET");
        d.files.emplace_back((base / a).string(), b);
    } else {
        return bad("unknown key");
    }
    return true;
}

bool read_description(const fs::path &path, Description *d) {
    std::string text;
    UniqueFile f(fopen(path.c_str(), "r"));
    if (!f)
        return fail("cannot read " + path.string());
    char line[1024];
    int number = 0;
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        ++number;
        line[strcspn(line, "\r\n")] = '\0';
        if (line[0] == '\0' || line[0] == '#')
            continue;
        if (!parse_line(*d, path.parent_path(), line, number))
            return false;
    }
    if (d->model.empty() || !model_name_usable(d->model.c_str()))
        return fail("a usable model name is required");
    if ((d->banks[0].set || d->banks[1].set) &&
        (!d->banks[0].set || !d->banks[1].set || d->version < 0 || d->id < 0))
        return fail("firmware needs bank1, bank2, firmware-version and firmware-id");
    return true;
}

bool write_lines(const fs::path &path, const std::vector<std::string> &lines) {
    UniqueFile f(fopen(path.c_str(), "w"));
    if (!f)
        return fail("cannot write " + path.string());
    for (const std::string &line : lines)
        fprintf(f.get(), "%s\n", line.c_str());
    return true;
}

// One S2 record (24-bit address): count, address, data and the one's complement checksum.
void write_s2_record(FILE *out, uint32_t address, const uint8_t *data, size_t count) {
    uint8_t record[4 + kRecordBytes];
    record[0] = static_cast<uint8_t>(count + 4);
    record[1] = static_cast<uint8_t>(address >> 16);
    record[2] = static_cast<uint8_t>(address >> 8);
    record[3] = static_cast<uint8_t>(address);
    memcpy(record + 4, data, count);
    uint8_t sum = 0;
    fputs("S2", out);
    for (size_t i = 0; i < count + 4; ++i) {
        sum = static_cast<uint8_t>(sum + record[i]);
        fprintf(out, "%02X", record[i]);
    }
    fprintf(out, "%02X\n", static_cast<uint8_t>(~sum));
}

bool write_firmware(const Description &d, const fs::path &path) {
    UniqueFile out(fopen(path.c_str(), "w"));
    if (!out)
        return fail("cannot write " + path.string());
    for (int b = 0; b < 2; ++b) {
        std::vector<uint8_t> bytes;
        if (!read_binary(d.banks[b].file, &bytes))
            return false;
        if (bytes.empty() || bytes.size() > MaxRomSize)
            return fail(format("%s: %zu bytes, the image holds 1 to %u", d.banks[b].file.c_str(),
                               bytes.size(), MaxRomSize));
        uint32_t address = d.banks[b].address;
        fprintf(out.get(), "TVM_BANK%d\nVERSION %02lX\nMICRO ID %02lX\nS-records of bank %d\n",
                b + 1, d.version, d.id, b + 1);
        fputs("S0030000FC\n", out.get());
        for (size_t offset = 0; offset < bytes.size(); offset += kRecordBytes)
            write_s2_record(out.get(), address + static_cast<uint32_t>(offset),
                            bytes.data() + offset, std::min(kRecordBytes, bytes.size() - offset));
        uint8_t term[] = {4, static_cast<uint8_t>(address >> 16),
                          static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)};
        uint8_t sum = 0;
        for (uint8_t byte : term)
            sum = static_cast<uint8_t>(sum + byte);
        fprintf(out.get(), "S8%02X%02X%02X%02X%02X\n", term[0], term[1], term[2], term[3],
                static_cast<uint8_t>(~sum));
    }
    return true;
}

// The largest binary the board writes whole.
size_t largest_eeprom_image(const EepromKind &kind) {
    size_t n = kind.image_size;
    while (n > 0 && n > eeprom_written_end(kind, static_cast<uint32_t>(n - 1)))
        --n;
    return n;
}

// Every address in ascending order, so that the last line is the highest address and the
// block walk covers the whole image.
bool write_eeprom(const EepromSource &e, const fs::path &dir) {
    std::vector<uint8_t> bytes;
    if (!read_binary(e.file, &bytes))
        return false;
    if (bytes.empty() || bytes.size() > e.kind->image_size)
        return fail(format("%s: %zu bytes, the %s image holds 1 to %zu", e.file.c_str(),
                           bytes.size(), e.kind->component, e.kind->image_size));
    // The last line's address ends the board's block walk: every byte must lie before the end
    // of the walk's last block.
    if (bytes.size() > eeprom_written_end(*e.kind, static_cast<uint32_t>(bytes.size() - 1)))
        return fail(format("%s: %zu bytes, not all of which the %s update writes: it writes "
                           "up to %zu bytes, never one more than a multiple of %zu",
                           e.file.c_str(), bytes.size(), e.kind->component,
                           largest_eeprom_image(*e.kind), e.kind->block_size));
    fs::path path = dir / (std::string(e.kind->prefix) + ".txt");
    UniqueFile out(fopen(path.c_str(), "w"));
    if (!out)
        return fail("cannot write " + path.string());
    if (e.kind->versioned)
        fprintf(out.get(), "Version %s\r\n", e.version.c_str());
    unsigned sum = 0;
    for (size_t a = 0; a < bytes.size(); ++a) {
        fprintf(out.get(), "%04zX %02X\r\n", a, bytes[a]);
        sum += bytes[a];
    }
    if (e.kind->versioned)
        fprintf(out.get(), "CheckSum %04X\r\n", sum & 0xFFFF);
    return true;
}

} // namespace

int build_medium(const std::string &description, const std::string &out_dir) {
    Description d;
    if (!read_description(description, &d))
        return -1;
    fs::path model_dir = fs::path(out_dir) / d.model;
    fs::path write_dir = model_dir / "writedata";
    std::error_code ec;
    fs::create_directories(write_dir, ec);
    if (ec)
        return fail("cannot make " + write_dir.string()), -1;
    if (!write_lines(model_dir / "flashimg.lst", d.list) ||
        !write_lines(model_dir / "update_mode.conf", d.mode))
        return -1;
    if (d.banks[0].set && !write_firmware(d, write_dir / "tvm.mot"))
        return -1;
    for (const EepromSource &e : d.eeproms)
        if (!write_eeprom(e, write_dir))
            return -1;
    for (const auto &[source, target] : d.files) {
        fs::path to = write_dir / target;
        fs::create_directories(to.parent_path(), ec);
        fs::copy_file(source, to, fs::copy_options::overwrite_existing, ec);
        if (ec)
            return fail("cannot copy " + source + " to " + to.string()), -1;
    }
    return 0;
}
