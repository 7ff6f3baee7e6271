#include "medium_build.h"
#include "medium_check.h"

#include "common/holders.h"
#include "tvmicro/tvm_update.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Files = std::map<std::string, std::string>;

// A medium for model M in a fresh folder beside the test program, in the build tree.
fs::path make_medium(const std::string &name, const Files &files) {
    fs::path dir = fs::read_symlink("/proc/self/exe").parent_path() / "tvmedium-cases" / name;
    fs::remove_all(dir);
    for (const auto &[path, text] : files) {
        fs::path p = dir / "M" / path;
        fs::create_directories(p.parent_path());
        if (path.back() == '/')
            continue;
        UniqueFile f(fopen(p.c_str(), "wb"));
        fwrite(text.data(), 1, text.size(), f.get());
    }
    return dir;
}

// A record of len data bytes at address (S2), with a right or a wrong checksum.
std::string s2(uint32_t address, int len, uint8_t fill, bool good = true) {
    std::string line = "S2";
    uint8_t sum = 0;
    auto put = [&](uint8_t b) {
        line += format("%02X", b);
        sum = static_cast<uint8_t>(sum + b);
    };
    put(static_cast<uint8_t>(len + 4));
    put(static_cast<uint8_t>(address >> 16));
    put(static_cast<uint8_t>(address >> 8));
    put(static_cast<uint8_t>(address));
    for (int i = 0; i < len; ++i)
        put(fill);
    line += format("%02X\n", static_cast<uint8_t>(good ? ~sum : sum));
    return line;
}

std::string section(int bank, const char *version, const std::string &records,
                    bool terminated = true) {
    return format("TVM_BANK%d\nVERSION %s\nMICRO ID 21\nbank\n", bank, version) + records +
           (terminated ? "S804010000FA\n" : "");
}

std::string good_firmware() {
    return section(1, "11", s2(0x10000, 16, 0xA5)) + section(2, "11", s2(0x30000, 16, 0x5A));
}

std::string eeprom(const std::vector<const char *> &lines) {
    std::string text = "Version 1\r\n";
    for (const char *l : lines)
        text += std::string(l) + "\r\n";
    return text + "CheckSum 0000\r\n";
}

struct Expected {
    Severity severity;
    const char *file_end;
    int line;
    const char *text;
};

bool has(const CheckReport &r, const Expected &e) {
    for (const Finding &f : r.findings) {
        std::string file = f.file;
        if (f.severity == e.severity && f.line == e.line && file.size() >= strlen(e.file_end) &&
            file.compare(file.size() - strlen(e.file_end), std::string::npos, e.file_end) == 0 &&
            f.message.find(e.text) != std::string::npos)
            return true;
    }
    return false;
}

std::string dump(const CheckReport &r) {
    std::string text;
    for (const Finding &f : r.findings)
        text += format("%s:%d [%s] %s\n", f.file.c_str(), f.line, f.component.c_str(),
                       f.message.c_str());
    return text;
}

const std::string kLongComment = "#" + std::string(254, 'x');

TEST(MediumCheck, EveryTrapIsReportedWithFileAndLine) {
    struct Case {
        const char *name;
        Files files;
        Expected expected; // also the most severe finding: status Note 0, Warning 1, Error 2
    } cases[] = {
        {"mac_line_ends",
         {{"flashimg.lst", "app_data\rjpeg_user\rother N\r"}, {"writedata/app_data/dpdc/a", "x"}},
         {Severity::Error, "flashimg.lst", 1, "reads lines 1 to 3 as one line; only 'app_data'"}},
        {"mac_line_ends_after_a_comment",
         {{"flashimg.lst", "# list\rqvxbin\r"}},
         {Severity::Error, "flashimg.lst", 1, "as one comment and selects nothing"}},
        {"capital_factory",
         {{"flashimg.lst", "app_data/Factory\n"}, {"writedata/app_data/dpdc/a", "x"}},
         {Severity::Error, "flashimg.lst", 1, "recreates UBIFS volume app_data"}},
        {"long_comment_tail",
         {{"flashimg.lst", kLongComment + "tvm_eeprom\nqvxbin\n"},
          {"update_mode.conf", ""},
          {"writedata/TVM_DATA.txt", eeprom({"0000 01"})}},
         {Severity::Error, "flashimg.lst", 1, "selects 'tvm_eeprom'"}},
        {"blank_before_hash",
         {{"flashimg.lst", "qvxbin\n # app_data N\n"}, {"update_mode.conf", ""}},
         {Severity::Warning, "flashimg.lst", 2, "blank before '#'"}},
        {"blank_before_keyword",
         {{"flashimg.lst", " qvxbin\n"}},
         {Severity::Error, "flashimg.lst", 1, "ignores this 'qvxbin' line"}},
        {"comment_after_keyword_adds_letters",
         {{"flashimg.lst", "model_data # No copies\n"}, {"writedata/model_data/a", "x"}},
         {Severity::Error, "flashimg.lst", 1, "option letter (here 'N')"}},
        {"factory_after_volume_recreated",
         {{"flashimg.lst", "app_data NF\napp_data/factory\n"},
          {"writedata/app_data/dpdc/a", "x"},
          {"writedata/app_data/factory/a", "x"}},
         {Severity::Error, "flashimg.lst", 2, "volume is recreated (line 1)"}},
        {"version_ff",
         {{"flashimg.lst", "tvm_hex\n"},
          {"writedata/tvm.mot",
           section(1, "FF", s2(0x10000, 16, 1)) + section(2, "11", s2(0x30000, 16, 2))}},
         {Severity::Warning, "tvm.mot", 2, "version FF installs"}},
        {"record_checksum",
         {{"flashimg.lst", "tvm_hex\n"},
          {"writedata/tvm.mot", section(1, "11", s2(0x10000, 16, 1) + s2(0x10010, 16, 1, false)) +
                                    section(2, "11", s2(0x30000, 16, 2))}},
         {Severity::Error, "tvm.mot", 6, "checksum wrong"}},
        {"record_outside_image",
         {{"flashimg.lst", "tvm_hex\n"},
          {"writedata/tvm.mot", section(1, "11", s2(0x10000, 16, 1) + s2(0x28000, 16, 1)) +
                                    section(2, "11", s2(0x30000, 16, 2))}},
         {Severity::Error, "tvm.mot", 6, "outside the 0x18000-byte image"}},
        {"missing_termination",
         {{"flashimg.lst", "tvm_hex\n"},
          {"writedata/tvm.mot",
           section(1, "11", s2(0x10000, 16, 1)) + section(2, "11", s2(0x30000, 16, 2), false)}},
         {Severity::Warning, "tvm.mot", 11, "no termination record"}},
        {"section_without_records",
         {{"flashimg.lst", "tvm_hex\n"},
          {"writedata/tvm.mot", section(1, "11", "") + section(2, "11", s2(0x30000, 16, 2))}},
         {Severity::Error, "tvm.mot", 2, "bank 1 section has no data record"}},
        {"missing_bank",
         {{"flashimg.lst", "tvm_hex\n"}, {"writedata/tvm.mot", section(1, "11", "")}},
         {Severity::Error, "tvm.mot", 0, "no TVM_BANK2 section"}},
        {"eeprom_last_line_not_highest",
         {{"flashimg.lst", "tvm_eeprom\n"},
          {"writedata/TVM_DATA_x.txt", eeprom({"0000 01", "0080 02", "0010 03"})}},
         {Severity::Error, "TVM_DATA_x.txt", 4, "address 0x0080 (line 3)"}},
        {"eeprom_end_on_block_start",
         {{"flashimg.lst", "tvm_eeprom\n"},
          {"writedata/TVM_DATA_x.txt", eeprom({"0000 01", "0040 02"})}},
         {Severity::Error, "TVM_DATA_x.txt", 3, "every byte from 0x0040 on is not"}},
        {"eeprom_short_line",
         {{"flashimg.lst", "tvm_eeprom\n"},
          {"writedata/TVM_DATA_x.txt", eeprom({"0000 01", "0012"})}},
         {Severity::Error, "TVM_DATA_x.txt", 3, "fewer than three bytes"}},
        {"eeprom_outside_device",
         {{"flashimg.lst", "tvm_eeprom\n"}, {"writedata/TVM_DATA_x.txt", eeprom({"7FFF 01"})}},
         {Severity::Error, "TVM_DATA_x.txt", 2, "outside the device"}},
        {"eeprom_without_version",
         {{"flashimg.lst", "tvm_eeprom\n"}, {"writedata/TVM_DATA_x.txt", "0000 01\n"}},
         {Severity::Error, "TVM_DATA_x.txt", 1, "not a \"Version\" line"}},
        {"fpga_eeprom_walk_past_image",
         {{"flashimg.lst", "fpga_eeprom\n"}, {"writedata/tr5_eep.txt", "07F0 01\n"}},
         {Severity::Error, "tr5_eep.txt", 1, "would pass the image end"}},
        {"boot_image_too_large",
         {{"flashimg.lst", "uboot\n"}, {"writedata/boot-M.bin", std::string(0xF0001, 'u')}},
         {Severity::Error, "boot-M.bin", 0, "larger than the 983040-byte"}},
        {"fpga_rom_missing",
         {{"flashimg.lst", "fpga_sam_2\n"}, {"writedata/fpga_config_sum_tr1.bin", "rom"}},
         {Severity::Error, "writedata", 0, "begins with fpga_config_sum_tr5"}},
        {"fpga_rom_found_by_prefix_in_any_case",
         {{"flashimg.lst", "fpga_sam_3\n"}, {"writedata/FPGA_CONFIG_LGD_TR6_V2.BIN", "rom"}},
         {Severity::Note, "FPGA_CONFIG_LGD_TR6_V2.BIN", 0, "3 bytes for the 16777216-byte"}},
        {"missing_source_folder",
         {{"flashimg.lst", "bitmap\n"}},
         {Severity::Error, "writedata/bitmap", 0, "source folder missing"}},
        {"empty_source_folder",
         {{"flashimg.lst", "jpeg_user\n"}, {"writedata/jpeg_user/", ""}},
         {Severity::Error, "writedata/jpeg_user", 0, "source folder empty"}},
    };
    for (const Case &c : cases) {
        CheckReport report = check_medium(make_medium(c.name, c.files).string(), "M");
        EXPECT_TRUE(has(report, c.expected)) << c.name << ":\n" << dump(report);
        EXPECT_EQ(report.exit_status(), static_cast<int>(c.expected.severity)) << c.name << ":\n"
                                                                               << dump(report);
    }
}

TEST(MediumCheck, PlainSelectionsAreCleanAndSayWhatHappens) {
    Files files{{"flashimg.lst", "# all fine\napp_data N\napp_data/factory RN\n\ntvm_hex\n"},
                {"writedata/app_data/dpdc/a", "x"},
                {"writedata/tvm.mot", good_firmware()}};
    CheckReport report = check_medium(make_medium("clean", files).string(), "M");
    EXPECT_EQ(report.exit_status(), 0) << dump(report);
    EXPECT_TRUE(has(report, {Severity::Note, "flashimg.lst", 2, "erases its folder first"}));
    EXPECT_TRUE(has(report, {Severity::Note, "flashimg.lst", 3, "is not refreshed"}));
    EXPECT_TRUE(has(report, {Severity::Note, "tvm.mot", 2, "checksum 0x"}));
}

TEST(MediumCheck, JsonCarriesStatusAndFindings) {
    CheckReport report =
        check_medium(make_medium("json", {{"flashimg.lst", " qvxbin\n"}}).string(), "M");
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    print_report_json(report, out);
    fclose(out);
    nlohmann::json doc = nlohmann::json::parse(std::string(text, size));
    free(text);
    EXPECT_EQ(doc["status"], 2);
    EXPECT_EQ(doc["model"], "M");
    ASSERT_EQ(doc["findings"].size(), 1u);
    EXPECT_EQ(doc["findings"][0]["severity"], "error");
    EXPECT_EQ(doc["findings"][0]["file"], "M/flashimg.lst");
    EXPECT_EQ(doc["findings"][0]["line"], 1);
}

// What build writes checks clean and loads, with the tool's own reader, to the input bytes.
TEST(MediumBuild, FirmwareAndEepromLoadToTheInputBytes) {
    fs::path dir = make_medium("build-input", {{"unused", ""}});
    std::vector<uint8_t> bank1(MaxRomSize), bank2(1000), eep(300);
    for (size_t i = 0; i < bank1.size(); ++i)
        bank1[i] = static_cast<uint8_t>(i * 7 + i / 256);
    for (size_t i = 0; i < bank2.size(); ++i)
        bank2[i] = static_cast<uint8_t>(255 - i);
    for (size_t i = 0; i < eep.size(); ++i)
        eep[i] = static_cast<uint8_t>(i * 3);
    auto write = [&](const char *name, const std::vector<uint8_t> &bytes) {
        UniqueFile f(fopen((dir / name).c_str(), "wb"));
        fwrite(bytes.data(), 1, bytes.size(), f.get());
    };
    write("b1.bin", bank1);
    write("b2.bin", bank2);
    write("eep.bin", eep);
    {
        UniqueFile f(fopen((dir / "desc.txt").c_str(), "w"));
        fputs("model BUILT\nlist tvm_eeprom\nlist tvm_hex\nmode mode=full\n"
              "firmware-version 12\nfirmware-id FF\nbank1 b1.bin 0x10000\n"
              "bank2 b2.bin 0x30000\neeprom tvm_eeprom eep.bin 1.0\n",
              f.get());
    }
    ASSERT_EQ(build_medium((dir / "desc.txt").string(), (dir / "out").string()), 0);
    CheckReport report = check_medium((dir / "out").string(), "");
    EXPECT_EQ(report.exit_status(), 0) << dump(report);
    EXPECT_TRUE(has(report, {Severity::Note, "TVM_DATA.txt", 0, "5 blocks of 64 bytes"}))
        << dump(report);

    for (int bank = 1; bank <= 2; ++bank) {
        const std::vector<uint8_t> &input = bank == 1 ? bank1 : bank2;
        UniqueFile mot(fopen((dir / "out/BUILT/writedata/tvm.mot").c_str(), "r"));
        ASSERT_TRUE(find_section(mot.get(), static_cast<uint8_t>(bank)));
        char skip[64];
        for (int i = 0; i < 3; ++i)
            ASSERT_NE(fgets(skip, sizeof skip, mot.get()), nullptr);
        uint32_t base = 0;
        ASSERT_EQ(MotSRecordLoadImage(
                      mot.get(), &base, [](void *, SRecordEvent, const char *) {}, nullptr),
                  0);
        EXPECT_EQ(base, bank == 1 ? 0x10000u : 0x30000u);
        EXPECT_EQ(memcmp(rom_buf, input.data(), input.size()), 0) << "bank " << bank;
    }
}

TEST(MediumBuild, RefusesWhatCannotLoad) {
    fs::path dir = make_medium("build-refused", {{"unused", ""}});
    struct Case {
        const char *description;
    } cases[] = {
        {"list tvm_hex\n"},                    // no model
        {"model M\nfirmware-version FF\n"},    // installs over everything
        {"model M\nfirmware-id 100\n"},        // not a byte
        {"model M\nbank1 b.bin 0x10000\n"},    // one bank only
        {"model M\neeprom nothing eep.bin\n"}, // unknown EEPROM
        {"model M\nwhatever 1\n"},             // unknown key
    };
    for (const Case &c : cases) {
        {
            UniqueFile f(fopen((dir / "desc.txt").c_str(), "w"));
            fputs(c.description, f.get());
        }
        EXPECT_EQ(build_medium((dir / "desc.txt").string(), (dir / "out").string()), -1)
            << c.description;
    }
}

} // namespace
