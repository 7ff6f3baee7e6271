#include "medium_check.h"

#include "bootloader/update_uboot.h"
#include "common/holders.h"
#include "data/update_data.h"
#include "eeprom/eep_update.h"
#include "hw/utils.h"
#include "run/flashimg.h"
#include "tvmicro/tvm_update.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

const EepromKind kEepromKinds[] = {
    {"tvm_eeprom", 0, FLAG_TVM_EEPROM, "TVM_DATA", 64, kEepRomSize, kTvmEepromBlock, true},
    {"pelto_eeprom", 0, FLAG_PELTO_EEPROM, "PELTO_DATA", 64, 0x8000, 0, false},
    {"fpga_eeprom", 1, FLAG1_FPGA_EEPROM, "tr5_eep", 32, 2047, 32, false},
    {"fpga_tr6_eeprom", 1, FLAG1_FPGA_TR6_EEPROM, "tr6_eep", 32, 2047, 32, false},
    {"kolma_eeprom", 1, FLAG1_KOLMA_EEPROM, "kolma_eep", 64, 32767, 64, false},
};
const size_t kEepromKindCount = std::size(kEepromKinds);

namespace {

// An FPGA configuration ROM image: found by prefix, streamed whole into the ROM from address 0.
// The board's ROMs are a 16-Mbit part for FPGA 0 and 64-Mbit parts for FPGAs 1 and 2; a larger
// image wraps round and overwrites the ROM's first pages.
struct RomKind {
    const char *component;
    uint32_t select_bit; // in word 1
    const char *prefix;
    uintmax_t rom_size;
};
constexpr uintmax_t kMiB = 1024 * 1024;
constexpr RomKind kRomKinds[] = {
    {.component = "fpga_sam_1",
     .select_bit = FLAG1_FPGA_SAM_1,
     .prefix = "fpga_config_sum_tr1",
     .rom_size = 2 * kMiB},
    {.component = "fpga_sam_2",
     .select_bit = FLAG1_FPGA_SAM_2,
     .prefix = "fpga_config_sum_tr5",
     .rom_size = 8 * kMiB},
    {.component = "fpga_sam_3",
     .select_bit = FLAG1_FPGA_SAM_3,
     .prefix = "fpga_config_lgd_tr6",
     .rom_size = 8 * kMiB},
};

// The configuration stream's sync word; an FPGA looks for it near the start of its ROM.
constexpr uint8_t kSyncWord[] = {0xAA, 0x99, 0x55, 0x66};
constexpr size_t kSyncWindow = 256;

// Components refreshing a data directory, by their selection bit in word 0.
struct DataComponent {
    const char *component;
    uint32_t select_bit;
    int kind; // index + 1 of kDataDirs
};
constexpr DataComponent kDataComponents[] = {
    {"app_data", FLAG_APP_DATA, 1},
    {"app_data/factory", FLAG_FACTORY, 2},
    {"model_data", FLAG_MODEL_DATA, 3},
    {"jpeg_user", FLAG_JPEG_USER, 4},
    {"jpeg_factory", FLAG_JPEG_FACTORY, 5},
    {"bitmap", FLAG_BITMAP, 6},
    {"other", FLAG_OTHER, 7},
};

constexpr const char *kListFile = "flashimg.lst";
constexpr const char *kFirmwareFile = "tvm.mot";
constexpr const char *kModeFile = "update_mode.conf";

std::string letters_text(uint32_t letters) {
    std::string text;
    for (auto [bit, letter] :
         {std::pair{OPTION_N, 'N'}, {OPTION_F, 'F'}, {OPTION_5, '5'}, {OPTION_R, 'R'}})
        if ((letters & bit) != 0)
            text += letter;
    return text;
}

bool read_whole(const fs::path &path, std::string *text) {
    UniqueFile file(fopen(path.c_str(), "rb"));
    if (!file)
        return false;
    text->clear();
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, file.get())) > 0)
        text->append(chunk, n);
    return true;
}

// Line ends as an editor shows them: LF, CR LF, or a CR alone.
int line_ends_in(const char *text, size_t length) {
    int ends = 0;
    for (size_t i = 0; i < length; ++i)
        if (text[i] == '\n' || (text[i] == '\r' && i + 1 < length && text[i + 1] != '\n'))
            ++ends;
    return ends;
}

bool has_lone_cr(const char *text) {
    for (const char *p = strchr(text, '\r'); p != nullptr; p = strchr(p + 1, '\r'))
        if (p[1] != '\n' && p[1] != '\0')
            return true;
    return false;
}

// --- the image list ---------------------------------------------------------------------------

struct ListCheck {
    CheckReport *report;
    std::string file;
    MediaFound media{true, false};
    uint32_t flags[4] = {0, 0, 0, 0};
    int line = 1;                        // line of the next piece
    bool at_line_start = true;           // the previous piece ended its line
    bool in_comment = false;             // the current line began with '#'
    int app_volume_line = 0;             // line that recreates the app_data volume
    int select_line[2][32] = {};         // line that selected each bit
    uint32_t select_letters[2][32] = {}; // its option letters
};

int bit_index(uint32_t bit) {
    return __builtin_ctz(bit);
}

std::string effect_text(const ListLineEffect &effect) {
    std::string text = format("selects '%s'", effect.keyword);
    if (effect.erase_bit != 0)
        text += ", erases its folder first (N)";
    if (effect.recreated_volume != nullptr)
        text += format(", removes and recreates UBIFS volume %s while reading the list (F)",
                       effect.recreated_volume->name);
    if (effect.select_bit == 0 && !effect.zoran_refused)
        text = format("'%s' with R: the folder is not refreshed", effect.keyword);
    return text;
}

// The characters after the keyword, up to the line end as the board sees it.
std::string keyword_tail(const char *piece, const char *keyword) {
    const char *tail = piece + strlen(keyword);
    return std::string(tail, strcspn(tail, "\n"));
}

void check_tail(ListCheck &c, const char *piece, const ListLineEffect &effect) {
    std::string tail = keyword_tail(piece, effect.keyword);
    std::string up_to_cr = tail.substr(0, tail.find('\r'));
    bool stray = up_to_cr.find_first_not_of(" \tNF5R") != std::string::npos;
    if (!stray)
        return;
    bool acts = (effect.letters & (OPTION_F | OPTION_N | OPTION_R)) != 0;
    c.report->add(acts ? Severity::Error : Severity::Warning, "list", c.file, c.line,
                  format("'%s%s' is read as keyword '%s'; every N, F, 5 or R after it is an "
                         "option letter (here '%s'): %s",
                         effect.keyword, up_to_cr.c_str(), effect.keyword,
                         letters_text(effect.letters).c_str(), effect_text(effect).c_str()));
}

void check_mac_line_ends(ListCheck &c, const char *piece, const ListLineEffect &effect) {
    if (!has_lone_cr(piece))
        return;
    int joined = line_ends_in(piece, strlen(piece)) + 1;
    std::string what = effect.keyword != nullptr
                           ? format("only '%s' counts, with option letters '%s' taken from all "
                                    "of them: %s",
                                    effect.keyword, letters_text(effect.letters).c_str(),
                                    effect_text(effect).c_str())
                           : std::string("none of them selects anything");
    c.report->add(Severity::Error, "list", c.file, c.line,
                  format("lines end with CR alone (Mac line ends): the board reads lines %d to %d "
                         "as one line; %s",
                         c.line, c.line + joined - 1, what.c_str()));
}

void check_line_start(ListCheck &c, const char *piece) {
    size_t blanks = strspn(piece, " \t");
    const char *rest = piece + blanks;
    if (blanks == 0 || *rest == '\0' || *rest == '\n' || *rest == '\r')
        return;
    ListLineEffect inner = decode_list_line(rest, c.media);
    if (inner.keyword != nullptr)
        c.report->add(
            Severity::Error, "list", c.file, c.line,
            format("line begins with a blank: the board ignores this '%s' line", inner.keyword));
    else if (*rest == '#')
        c.report->add(Severity::Warning, "list", c.file, c.line,
                      "blank before '#': not read as a comment, silently ignored because no "
                      "keyword begins it");
}

void record_effect(ListCheck &c, const ListLineEffect &effect) {
    if (effect.zoran_refused)
        c.report->add(Severity::Warning, "list", c.file, c.line,
                      "zoran_update is refused from an SD card");
    if (effect.select_bit != 0) {
        int bit = bit_index(effect.select_bit);
        int &first = c.select_line[effect.word][bit];
        uint32_t &letters = c.select_letters[effect.word][bit];
        if (first != 0) {
            // The board ORs the lines together: the letters of both apply.
            bool differ = letters != effect.letters;
            c.report->add(differ ? Severity::Error : Severity::Warning, effect.keyword, c.file,
                          c.line,
                          format("'%s' is listed again (first on line %d)%s", effect.keyword, first,
                                 differ ? format(": the board takes the option letters of both "
                                                 "lines together ('%s')",
                                                 letters_text(letters | effect.letters).c_str())
                                              .c_str()
                                        : ""));
        }
        first = first != 0 ? first : c.line;
        letters |= effect.letters;
    }
    c.flags[effect.word] |= effect.select_bit | effect.erase_bit;
    if (effect.recreated_volume != nullptr &&
        strcmp(effect.recreated_volume->name, "app_data") == 0)
        c.app_volume_line = c.line;
    c.report->add(Severity::Note, effect.keyword, c.file, c.line, effect_text(effect));
}

void check_piece(ListCheck &c, const char *piece) {
    bool continuation = !c.at_line_start;
    if (!continuation)
        c.in_comment = list_piece_is_comment(piece);
    bool comment = list_piece_is_comment(piece);
    ListLineEffect effect = comment ? ListLineEffect{} : decode_list_line(piece, c.media);
    if (continuation) {
        if (c.in_comment && effect.keyword != nullptr)
            c.report->add(Severity::Error, "list", c.file, c.line,
                          format("comment longer than %d characters: the board reads its tail "
                                 "as a line of its own, which %s",
                                 kListLineSize - 1, effect_text(effect).c_str()));
        else if (!comment)
            c.report->add(Severity::Warning, "list", c.file, c.line,
                          format("line longer than %d characters: the board reads the rest as "
                                 "a line of its own",
                                 kListLineSize - 1));
    } else if (!comment) {
        check_line_start(c, piece);
    } else if (has_lone_cr(piece)) {
        c.report->add(Severity::Error, "list", c.file, c.line,
                      format("lines end with CR alone (Mac line ends): the board reads lines %d "
                             "to %d as one comment and selects nothing from them",
                             c.line, c.line + line_ends_in(piece, strlen(piece))));
    }
    if (!comment) {
        check_mac_line_ends(c, piece, effect);
        if (effect.keyword != nullptr) {
            check_tail(c, piece, effect);
            record_effect(c, effect);
        } else if (!continuation && piece[strspn(piece, " \t\r\n")] != '\0' &&
                   strspn(piece, " \t") == 0) {
            c.report->add(Severity::Warning, "list", c.file, c.line,
                          "no keyword begins this line: it selects nothing");
        }
    }
    size_t length = strlen(piece);
    c.line += line_ends_in(piece, length);
    c.at_line_start = length > 0 && piece[length - 1] == '\n';
}

bool selects_anything(const ListCheck &c) {
    for (const auto &word : c.select_line)
        for (int line : word)
            if (line != 0)
                return true;
    return false;
}

// A data folder refresh after its volume was recreated copies into a folder that is gone,
// unless N makes the copy take the whole folder.
void check_recreated_app_volume(ListCheck &c) {
    if (c.app_volume_line == 0)
        return;
    for (const DataComponent &d : kDataComponents) {
        const DataDir &dir = kDataDirs[d.kind - 1];
        if (!dir.is_app_data_subdir || (c.flags[0] & d.select_bit) == 0 ||
            (c.flags[0] & dir.erase_bit) != 0)
            continue;
        c.report->add(Severity::Error, d.component, c.file,
                      c.select_line[0][bit_index(d.select_bit)],
                      format("the app_data volume is recreated (line %d) before any refresh, so "
                             "the copy into %s finds no folder: add N to this line",
                             c.app_volume_line, dir.target));
    }
}

// --- the write-data folder ----------------------------------------------------------------------

struct MediumContext {
    CheckReport *report;
    fs::path model_dir;
    fs::path write_dir;
    std::string model;
    uint32_t flags[4];

    std::string relative(const fs::path &path) const {
        return fs::relative(path, report->medium).string();
    }
    bool selected(int word, uint32_t bit) const { return (flags[word] & bit) != 0; }
};

void check_data_dirs(MediumContext &m) {
    for (const DataComponent &d : kDataComponents) {
        if (!m.selected(0, d.select_bit))
            continue;
        const DataDir &dir = kDataDirs[d.kind - 1];
        fs::path source = m.write_dir / dir.source_subdir;
        std::error_code ec;
        if (!fs::is_directory(source, ec)) {
            m.report->add(Severity::Error, d.component, m.relative(source), 0,
                          "source folder missing: the copy fails");
            continue;
        }
        bool whole_folder = dir.is_app_data_subdir && m.selected(0, dir.erase_bit);
        if (fs::is_empty(source, ec) && !whole_folder)
            m.report->add(Severity::Error, d.component, m.relative(source), 0,
                          "source folder empty: the copy of its contents fails");
        else
            m.report->add(Severity::Note, d.component, m.relative(source), 0,
                          format("copied to %s%s", dir.target,
                                 m.selected(0, dir.erase_bit) ? " after erasing it" : ""));
    }
}

// The S-record loader's verdict on each line, with its line number.
struct SRecordCheck {
    MediumContext *m;
    std::string file;
    std::string component;
    int line;
    bool terminated = false;
    int records = 0;
};

void observe_srecord(void *context, SRecordEvent event, const char *text) {
    auto *s = static_cast<SRecordCheck *>(context);
    ++s->line;
    auto add = [&](Severity severity, const std::string &message) {
        s->m->report->add(severity, s->component, s->file, s->line, message);
    };
    switch (event) {
    case SREC_NOT_S_RECORD:
        add(Severity::Warning, format("not an S-record, skipped: '%.40s'", text));
        break;
    case SREC_BAD_CHECKSUM:
        add(Severity::Error, "record checksum wrong: the record is dropped and its bytes stay FF");
        break;
    case SREC_OUTSIDE_IMAGE:
        add(Severity::Error,
            format("record address 0x%X lies outside the 0x%X-byte image that starts at the "
                   "first record's address: the load fails",
                   MotSRecordGetAddress(text), MaxRomSize));
        break;
    case SREC_UNKNOWN_TYPE:
        add(Severity::Error, "record of no known type: the load fails");
        break;
    case SREC_TERMINATION:
        s->terminated = true;
        break;
    case SREC_DATA:
        ++s->records;
        break;
    case SREC_HEADER:
        break;
    }
}

// Line number of the position the reader has reached.
int line_at(const std::string &text, long offset) {
    size_t end = offset < 0 ? 0 : std::min(text.size(), static_cast<size_t>(offset));
    return line_ends_in(text.data(), end) + 1;
}

// Reads a version or ID line as the programmer does; false when it is too short.
bool read_section_value(FILE *file, uint8_t *value, std::string *line_text) {
    char line[kSectionHeaderLineSize] = {};
    Get_Fgets(line, sizeof line, file);
    *line_text = line;
    if (strlen(line) < 2)
        return false;
    *value = section_line_value(line);
    return true;
}

void check_section_value(MediumContext &m, const std::string &file, int line, FILE *f,
                         const char *what, uint8_t *value) {
    std::string text;
    const char *c = "tvm_hex";
    if (!read_section_value(f, value, &text)) {
        m.report->add(Severity::Error, c, file, line,
                      format("%s line too short: the bank is not programmed", what));
        return;
    }
    size_t n = text.size();
    if (CharToHex(text[n - 2]) == 0xFF || CharToHex(text[n - 1]) == 0xFF)
        m.report->add(Severity::Error, c, file, line,
                      format("%s line '%s' does not end in two hexadecimal digits: read as %02X",
                             what, text.c_str(), *value));
}

void check_bank(MediumContext &m, const fs::path &path, const std::string &text, uint8_t bank) {
    std::string file = m.relative(path);
    const char *c = "tvm_hex";
    UniqueFile f(fopen(path.c_str(), "r"));
    if (!f || !find_section(f.get(), bank)) {
        m.report->add(Severity::Error, c, file, 0,
                      format("no TVM_BANK%d section: a board running the other bank fails", bank));
        return;
    }
    int line = line_at(text, ftell(f.get()));
    uint8_t version = 0;
    uint8_t id = 0;
    check_section_value(m, file, line, f.get(), "version", &version);
    check_section_value(m, file, line + 1, f.get(), "ID", &id);
    if (version == 0xFF)
        m.report->add(Severity::Warning, c, file, line,
                      "version FF installs whatever version the microcontroller runs");
    char ignored[256];
    Get_Fgets(ignored, sizeof ignored, f.get());
    SRecordCheck s{&m, file, c, line + 2};
    uint32_t base = 0;
    size_t findings_before = m.report->findings.size();
    int loaded = MotSRecordLoadImage(f.get(), &base, observe_srecord, &s);
    if (s.records == 0 || (loaded != 0 && m.report->findings.size() == findings_before)) {
        m.report->add(
            Severity::Error, c, file, line,
            format("bank %d section has no data record: the bank is not programmed", bank));
        return;
    }
    if (loaded == 0 && !s.terminated)
        m.report->add(Severity::Warning, c, file, s.line,
                      format("bank %d has no termination record: the load reads on to the end "
                             "of the file",
                             bank));
    if (loaded == 0)
        m.report->add(Severity::Note, c, file, line,
                      format("bank %d: version %02X for microcontroller ID %02X, %d records, "
                             "image of 0x%X bytes at 0x%X, checksum 0x%04X",
                             bank, version, id, s.records, MaxRomSize, base, image_checksum()));
}

void check_firmware(MediumContext &m) {
    if (!m.selected(0, FLAG_TVM_HEX))
        return;
    fs::path path = m.write_dir / kFirmwareFile;
    std::string text;
    if (!read_whole(path, &text)) {
        m.report->add(Severity::Error, "tvm_hex", m.relative(path), 0,
                      "missing (the name must be exactly tvm.mot)");
        return;
    }
    check_bank(m, path, text, 1);
    check_bank(m, path, text, 2);
}

// Reads an EEPROM text file with its updater's line buffer and reports what it writes.
void check_eeprom_file(MediumContext &m, const EepromKind &kind, const fs::path &path) {
    std::string file = m.relative(path);
    std::string text;
    UniqueFile f(fopen(path.c_str(), "r"));
    if (!f || !read_whole(path, &text)) {
        m.report->add(Severity::Error, kind.component, file, 0, "cannot be opened");
        return;
    }
    if (has_lone_cr(text.c_str())) {
        m.report->add(Severity::Error, kind.component, file, 1,
                      "lines end with CR alone (Mac line ends): the board reads the file as one "
                      "line, cut into pieces of its line buffer, and the update fails or writes "
                      "what no line says");
        return;
    }
    char line[64];
    int size = std::min(kind.line_size, static_cast<int>(sizeof line));
    int number = 0;
    auto add = [&](Severity s, const std::string &message) {
        m.report->add(s, kind.component, file, number, message);
    };
    if (kind.versioned) {
        ++number;
        if (Get_Fgets(line, size, f.get()) == 0 || !eep_is_version_line(line)) {
            add(Severity::Error, "first line is not a \"Version\" line: the update fails");
            return;
        }
    }
    uint32_t end = 0, highest = 0;
    int end_line = 0, highest_line = 0;
    while (Get_Fgets(line, size, f.get()) != 0) {
        ++number;
        if (kind.versioned && eep_is_checksum_line(line))
            break;
        uint32_t address = 0;
        uint8_t byte = 0;
        EepLineKind k = decode_eep_data_line(line, &address, &byte);
        if (k == EEP_LINE_EMPTY)
            continue;
        if (k == EEP_LINE_NO_DATA) {
            add(Severity::Error,
                format("'%s' yields fewer than three bytes: the file is refused", line));
            return;
        }
        if (address >= kind.image_size) {
            add(Severity::Error, format("address 0x%04X is outside the device (0x%04zX bytes): "
                                        "the file is refused",
                                        address, kind.image_size));
            return;
        }
        end = address;
        end_line = number;
        if (address >= highest) {
            highest = address;
            highest_line = number;
        }
    }
    if (end_line == 0) {
        m.report->add(Severity::Warning, kind.component, file, 0, "no data line: nothing written");
        return;
    }
    if (kind.block_size == 0) {
        m.report->add(Severity::Note, kind.component, file, 0,
                      format("each line written as read, highest address 0x%04X", highest));
        return;
    }
    size_t written_end = eeprom_written_end(kind, end);
    if (written_end == 0 && end != 0) {
        m.report->add(Severity::Error, kind.component, file, end_line,
                      format("end address 0x%04X: its last block would pass the image end", end));
        return;
    }
    size_t blocks = written_end / kind.block_size;
    if (highest >= written_end)
        m.report->add(Severity::Error, kind.component, file, end_line,
                      format("the last data line (address 0x%04X) ends the write: blocks up to "
                             "0x%04zX are written, so address 0x%04X (line %d) and every byte "
                             "from 0x%04zX on is not",
                             end, written_end, highest, highest_line, written_end));
    m.report->add(Severity::Note, kind.component, file, 0,
                  format("%zu blocks of %zu bytes written, 0x0000 to 0x%04zX", blocks,
                         kind.block_size, written_end == 0 ? 0 : written_end - 1));
}

// The file of write_dir whose name begins with prefix, found as the tool finds it, into path
// (kEepPathSize bytes); false, reported, when there is none.
bool find_by_prefix(MediumContext &m, const char *component, const char *prefix, char *path) {
    if (find_eep_text_file(m.write_dir.c_str(), prefix, path, kEepPathSize) != EEP_FILE_FOUND) {
        m.report->add(Severity::Error, component, m.relative(m.write_dir), 0,
                      format("no file whose name begins with %s", prefix));
        return false;
    }
    std::error_code ec;
    if (fs::is_regular_file(path, ec))
        return true;
    m.report->add(Severity::Error, component, m.relative(path), 0,
                  format("the first entry whose name begins with %s is not a file: the board "
                         "takes it and the update fails",
                         prefix));
    return false;
}

void check_eeproms(MediumContext &m) {
    for (const EepromKind &kind : kEepromKinds) {
        if (!m.selected(kind.word, kind.select_bit))
            continue;
        char path[kEepPathSize];
        if (find_by_prefix(m, kind.component, kind.prefix, path))
            check_eeprom_file(m, kind, path);
    }
}

void check_sized_image(MediumContext &m, const char *component, const fs::path &path,
                       uintmax_t limit, const char *what) {
    std::error_code ec;
    uintmax_t size = fs::file_size(path, ec);
    if (ec || size == 0)
        m.report->add(Severity::Error, component, m.relative(path), 0, "empty or unreadable");
    else if (size > limit)
        m.report->add(Severity::Error, component, m.relative(path), 0,
                      format("%ju bytes: larger than the %ju-byte %s", size, limit, what));
    else
        m.report->add(Severity::Note, component, m.relative(path), 0,
                      format("%ju bytes for the %ju-byte %s", size, limit, what));
}

void check_boot_loader(MediumContext &m) {
    if (!m.selected(0, FLAG_UBOOT))
        return;
    int found = 0;
    for (const char *name_format : {kBootImageSpi, kBootImageNor}) {
        char name[kPathBufferSize];
        if (!bounded_format(name, sizeof name, name_format, m.model.c_str()))
            continue;
        fs::path path = m.write_dir / name;
        std::error_code ec;
        if (!fs::exists(path, ec))
            continue;
        ++found;
        check_sized_image(m, "uboot", path, kBootRegionSize, "boot loader region");
    }
    if (found == 0)
        m.report->add(Severity::Error, "uboot", m.relative(m.write_dir), 0,
                      format("neither boot-%s.bin (SPI boot) nor boot-%s_S1.bin (NOR boot)",
                             m.model.c_str(), m.model.c_str()));
}

void check_rom_image(MediumContext &m, const RomKind &rom, const fs::path &path) {
    check_sized_image(m, rom.component, path, rom.rom_size, "configuration ROM");
    std::string head;
    UniqueFile f(fopen(path.c_str(), "rb"));
    if (f) {
        char bytes[kSyncWindow];
        head.assign(bytes, fread(bytes, 1, sizeof bytes, f.get()));
    }
    std::string_view sync(reinterpret_cast<const char *>(kSyncWord), sizeof kSyncWord);
    if (!head.empty() && head.find(sync) == std::string::npos)
        m.report->add(Severity::Error, rom.component, m.relative(path), 0,
                      format("no sync word AA 99 55 66 in the first %zu bytes: not a "
                             "configuration image, the FPGA does not configure from it",
                             kSyncWindow));
}

void check_roms(MediumContext &m) {
    for (const RomKind &rom : kRomKinds) {
        if (!m.selected(1, rom.select_bit))
            continue;
        char path[kEepPathSize];
        if (find_by_prefix(m, rom.component, rom.prefix, path))
            check_rom_image(m, rom, path);
    }
}

void check_model(CheckReport &report, const fs::path &medium, const std::string &model) {
    MediumContext m{&report, medium / model, medium / model / "writedata", model, {}};
    fs::path list_path = m.model_dir / kListFile;
    UniqueFile list(fopen(list_path.c_str(), "r"));
    if (!list) {
        report.add(Severity::Error, "list", m.relative(list_path), 0, "no image list");
        return;
    }
    if (!model_name_usable(model.c_str()))
        report.add(Severity::Error, "list", m.relative(m.model_dir), 0,
                   "the folder name is not a usable model name");
    ListCheck c{&report, m.relative(list_path)};
    walk_update_list(
        list.get(),
        [](void *context, const char *piece) {
            check_piece(*static_cast<ListCheck *>(context), piece);
        },
        &c);
    check_recreated_app_volume(c);
    if (!selects_anything(c))
        report.add(Severity::Error, "list", c.file, 0,
                   "the list selects nothing: the board updates nothing and reports success");
    std::copy(std::begin(c.flags), std::end(c.flags), m.flags);
    std::error_code ec;
    if (m.selected(0, FLAG_QVXBIN) && !fs::exists(m.model_dir / kModeFile, ec))
        report.add(Severity::Warning, "qvxbin", m.relative(m.model_dir / kModeFile), 0,
                   "missing: the application script is handed no mode file");
    check_data_dirs(m);
    check_eeproms(m);
    check_firmware(m);
    check_boot_loader(m);
    check_roms(m);
}

} // namespace

std::string format(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    char buf[1024];
    int n = vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return std::string(buf, n < 0 ? 0 : std::min(static_cast<size_t>(n), sizeof buf - 1));
}

void CheckReport::add(Severity severity, const std::string &component, const std::string &file,
                      int line, const std::string &message) {
    findings.push_back({severity, component, file, line, message});
}

int CheckReport::exit_status() const {
    int status = 0;
    for (const Finding &f : findings)
        status = std::max(status, f.severity == Severity::Error     ? 2
                                  : f.severity == Severity::Warning ? 1
                                                                    : 0);
    return status;
}

size_t eeprom_written_end(const EepromKind &kind, uint32_t end) {
    if (kind.block_size == 0)
        return kind.image_size;
    EepImage image{nullptr, kind.image_size, kind.block_size};
    if (!eep_walk_fits(image, end))
        return 0;
    return (end + kind.block_size - 1) / kind.block_size * kind.block_size;
}

const EepromKind *find_eeprom_kind(const char *component) {
    for (const EepromKind &kind : kEepromKinds)
        if (strcmp(kind.component, component) == 0)
            return &kind;
    return nullptr;
}

CheckReport check_medium(const std::string &medium_dir, const std::string &model) {
    CheckReport report{medium_dir, model, {}};
    fs::path medium(medium_dir);
    if (!model.empty()) {
        check_model(report, medium, model);
        return report;
    }
    std::vector<std::string> models;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(medium, ec))
        if (fs::exists(entry.path() / kListFile, ec))
            models.push_back(entry.path().filename().string());
    std::sort(models.begin(), models.end());
    if (models.empty())
        report.add(Severity::Error, "list", ".", 0, "no model folder with an image list");
    for (const std::string &name : models)
        check_model(report, medium, name);
    return report;
}

namespace {
const char *severity_name(Severity s) {
    return s == Severity::Error ? "error" : s == Severity::Warning ? "warning" : "note";
}
} // namespace

void print_report_text(const CheckReport &report, FILE *out) {
    for (const Finding &f : report.findings) {
        if (f.line > 0)
            fprintf(out, "%s:%d: %s: [%s] %s\n", f.file.c_str(), f.line, severity_name(f.severity),
                    f.component.c_str(), f.message.c_str());
        else
            fprintf(out, "%s: %s: [%s] %s\n", f.file.c_str(), severity_name(f.severity),
                    f.component.c_str(), f.message.c_str());
    }
}

void print_report_json(const CheckReport &report, FILE *out) {
    nlohmann::json findings = nlohmann::json::array();
    for (const Finding &f : report.findings)
        findings.push_back({{"severity", severity_name(f.severity)},
                            {"component", f.component},
                            {"file", f.file},
                            {"line", f.line},
                            {"message", f.message}});
    nlohmann::json doc{{"medium", report.medium},
                       {"model", report.model},
                       {"status", report.exit_status()},
                       {"findings", findings}};
    fprintf(out, "%s\n", doc.dump(2).c_str());
}
