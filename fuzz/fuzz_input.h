// What every fuzz target shares: the input as a stream the tool's readers take, and a link
// end whose replies the input scripts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The input as a read-only stdio stream over a private copy (the reader never sees
// libFuzzer's buffer, and an empty input is an empty stream).
class InputStream {
public:
    InputStream(const uint8_t *data, size_t size);
    ~InputStream();
    InputStream(const InputStream &) = delete;
    InputStream &operator=(const InputStream &) = delete;

    // The stream, back at its first byte.
    FILE *rewound();

private:
    char *copy_;
    FILE *file_;
};

// The input split at its first line feed: the head (without it) and the rest.
struct HeadAndRest {
    const char *head; // a zero-terminated copy, at most 63 characters
    const uint8_t *rest;
    size_t rest_size;
    char storage[64];
};
HeadAndRest split_first_line(const uint8_t *data, size_t size);

// Each target's body: drives the tool's readers with one input. The guard around it turns a
// shell command, a mount or a clock change into a crash.
void fuzz_one(const uint8_t *data, size_t size);
