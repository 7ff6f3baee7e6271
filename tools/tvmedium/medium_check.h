// What the board will do with an update medium, and the traps in it, found with the update
// tool's own readers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

enum class Severity { Note, Warning, Error };

// One thing the checker found: where (file relative to the medium, line from 1, 0 for the
// whole file) and what.
struct Finding {
    Severity severity;
    std::string component;
    std::string file;
    int line;
    std::string message;
};

struct CheckReport {
    std::string medium;
    std::string model;
    std::vector<Finding> findings;

    void add(Severity severity, const std::string &component, const std::string &file, int line,
             const std::string &message);
    // 0 clean, 1 warnings, 2 errors.
    int exit_status() const;
};

// An EEPROM text file kind: the component's list keyword and selection bit, the file prefix,
// the line buffer, the image and the block walk of its updater.
struct EepromKind {
    const char *component;
    int word;
    uint32_t select_bit;
    const char *prefix;
    int line_size;
    size_t image_size;
    size_t block_size; // 0: every line is written at once, no block walk
    bool versioned;    // "Version" first line, data up to a "CheckSum " line
};
extern const EepromKind kEepromKinds[];
extern const size_t kEepromKindCount;
const EepromKind *find_eeprom_kind(const char *component);
// How many bytes from address 0 the board writes from a file whose last data line has address
// end (the block walk stops before end when end starts a block); 0 when the walk's last block
// would pass the image end. Every line is written for a kind without a block walk.
size_t eeprom_written_end(const EepromKind &kind, uint32_t end);

// Checks the model's folder of the medium; with no model, every folder holding an image list.
CheckReport check_medium(const std::string &medium_dir, const std::string &model);

void print_report_text(const CheckReport &report, FILE *out);
void print_report_json(const CheckReport &report, FILE *out);

// printf into a std::string.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
