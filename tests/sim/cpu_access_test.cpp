// Reading the loads and stores a program makes to a register window from its machine code.
#include "board/cpu_access.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tvsim {
namespace {

TEST(X86AccessWidth, PlainMovesComparesAndTestsOnly) {
    const struct {
        std::vector<uint8_t> code;
        unsigned width;
    } cases[] = {
        {{0x66, 0x89, 0x02}, 2},             // mov %ax,(%rdx)
        {{0x0F, 0xB7, 0x00}, 2},             // movzwl (%rax),%eax
        {{0x66, 0x83, 0x38, 0x01}, 2},       // cmpw $1,(%rax)
        {{0x66, 0xC7, 0x00, 0xF0, 0x00}, 2}, // movw $0xf0,(%rax)
        {{0x89, 0x02}, 4},                   // mov %eax,(%rdx)
        {{0x41, 0x8B, 0x04, 0x24}, 4},       // mov (%r12),%eax: REX without W
        {{0x88, 0x02}, 1},                   // mov %al,(%rdx)
        {{0x0F, 0xBE, 0x00}, 1},             // movsbl (%rax),%eax
        {{0x48, 0x89, 0x02}, 0},             // a 64-bit store
        {{0xF3, 0x0F, 0x6F, 0x00}, 0},       // movdqu
        {{0x01, 0x02}, 0},                   // add: a read-modify-write
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> code = c.code;
        code.resize(16, 0x90);
        EXPECT_EQ(x86_access_width(code.data()), c.width) << std::hex << int{c.code[0]};
    }
}

// A decoded access in the assembler's notation.
std::string text(const ArmAccess &a) {
    if (a.length == 0)
        return "refused";
    std::string s = a.load ? "ldr" : "str";
    s += std::string(a.sign_extend ? "s" : "") + (a.width == 1 ? "b" : a.width == 2 ? "h" : "");
    s += " r" + std::to_string(a.rt) + ", [r" + std::to_string(a.rn);
    std::string offset = a.rm >= 0 ? "r" + std::to_string(a.rm) : "#" + std::to_string(a.imm);
    offset = (a.add ? "" : "-") + offset + (a.shift ? ", lsl #" + std::to_string(a.shift) : "");
    if (!a.index)
        return s + "], " + offset;
    return s + ", " + offset + "]" + (a.writeback ? "!" : "") + " /" + std::to_string(a.length);
}

TEST(ArmAccessDecode, ThumbAndArmEncodingsAsTheAssemblerWroteThem) {
    const struct {
        bool thumb;
        uint32_t code; // Thumb: first halfword high
        const char *expected;
    } cases[] = {
        {true, 0x509C0000, "str r4, [r3, r2] /2"},
        {true, 0x5AD00000, "ldrh r0, [r2, r3] /2"},
        {true, 0x56D10000, "ldrsb r1, [r2, r3] /2"},
        {true, 0x5ED10000, "ldrsh r1, [r2, r3] /2"},
        {true, 0x80190000, "strh r1, [r3, #0] /2"},
        {true, 0x68520000, "ldr r2, [r2, #4] /2"},
        {true, 0x78C80000, "ldrb r0, [r1, #3] /2"},
        {true, 0xF8218004, "strh r8, [r1, r4] /4"},
        {true, 0xF8533030, "ldr r3, [r3, r0, lsl #3] /4"},
        {true, 0xF85D4B04, "ldr r4, [r13], #4"},
        {true, 0xF8DA3000, "ldr r3, [r10, #0] /4"},
        {true, 0xF8310D02, "ldrh r0, [r1, -#2]! /4"},
        {true, 0xF9B10006, "ldrsh r0, [r1, #6] /4"},
        {true, 0xE9D20100, "refused"}, // ldrd
        {true, 0xF8DF0008, "refused"}, // ldr.w r0, [pc, #8]
        {true, 0xC8030000, "refused"}, // ldmia
        {true, 0x98010000, "refused"}, // ldr r0, [sp, #4]
        {false, 0xE5910004, "ldr r0, [r1, #4] /4"},
        {false, 0xE5232008, "str r2, [r3, -#8]! /4"},
        {false, 0xE4D10001, "ldrb r0, [r1], #1"},
        {false, 0xE7910102, "ldr r0, [r1, r2, lsl #2] /4"},
        {false, 0xE1C210B6, "strh r1, [r2, #6] /4"},
        {false, 0xE19100F2, "ldrsh r0, [r1, r2] /4"},
        {false, 0xE1D100D1, "ldrsb r0, [r1, #1] /4"},
        {false, 0xE1C100D0, "refused"}, // ldrd
        {false, 0xE7910122, "refused"}, // lsr shift
        {false, 0xE8910003, "refused"}, // ldm
        {false, 0xF5D1F000, "refused"}, // pld
    };
    for (const auto &c : cases) {
        ArmAccess a = c.thumb ? decode_thumb(static_cast<uint16_t>(c.code >> 16),
                                             static_cast<uint16_t>(c.code))
                              : decode_arm(c.code);
        EXPECT_EQ(text(a), c.expected) << std::hex << c.code;
    }
}

TEST(ArmAccessDecode, AddressAndWriteback) {
    uint32_t regs[16] = {};
    regs[1] = 0x1000;
    regs[2] = 3;
    const struct {
        ArmAccess access;
        uint32_t address, base_after;
    } cases[] = {
        {decode_arm(0xE4D10001), 0x1000, 0x1001},     // post-indexed
        {decode_thumb(0xF831, 0x0D02), 0xFFE, 0xFFE}, // pre-indexed, subtracted, written back
        {decode_arm(0xE7910102), 0x100C, 0x1000},     // shifted register, base kept
    };
    for (const auto &c : cases) {
        uint32_t base_after = 0;
        EXPECT_EQ(arm_access_address(c.access, regs, &base_after), c.address);
        EXPECT_EQ(base_after, c.base_after);
    }
}

} // namespace
} // namespace tvsim
