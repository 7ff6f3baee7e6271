// Makes an update medium from binaries and a short description.
//
// The description is a text file of lines "KEY VALUE..."; blank lines and lines starting with
// '#' are skipped, and file names are relative to the description's folder:
//   model NAME                   the model folder to make (required)
//   list LINE                    a line of flashimg.lst, as written
//   mode LINE                    a line of update_mode.conf, as written
//   firmware-version XX          version of both firmware sections (hexadecimal, not FF)
//   firmware-id XX               microcontroller ID of both sections (hexadecimal)
//   bank1 FILE ADDRESS           firmware binary of flash bank 1 and its load address
//   bank2 FILE ADDRESS           the same for bank 2
//   eeprom COMPONENT FILE [TEXT] an EEPROM binary for the component's text file (TEXT ends the
//                                "Version" line of the files that have one)
//   file SOURCE TARGET           a file copied as is to writedata/TARGET
#pragma once

#include <string>

// Writes the medium into out_dir (out_dir/MODEL/...). 0, or -1 after printing why to stderr.
int build_medium(const std::string &description, const std::string &out_dir);
