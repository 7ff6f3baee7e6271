// Reading the loads and stores a program makes to a register window from its machine code.
#include "board/cpu_access.h"

#include <gtest/gtest.h>
#include <string>

namespace tvsim {
namespace {

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

// IT state IT[7:0] sits in CPSR bits 15-10 (IT[7:2]) and 26-25 (IT[1:0]); ITAdvance ends the
// block when IT[2:0] is 000 and otherwise shifts IT[4:0] left, keeping the base condition.
TEST(ArmItState, AdvancesAsTheArchitectureDefines) {
    const struct {
        const char *what;
        uint32_t before, after;
    } cases[] = {
        {"outside an IT block", 0x80000030, 0x80000030},
        {"the last instruction (IT 0x08)", 0x00000820, 0x00000020},
        {"two left (IT 0x04 -> 0x08)", 0x00000420, 0x00000820},
        {"mask bits in IT[1:0] (IT 0x1B -> 0x16)", 0x86001820, 0x84001420},
        {"the condition kept (IT 0xE4 -> 0xE8)", 0x0000E420, 0x0000E820},
    };
    for (const auto &c : cases)
        EXPECT_EQ(arm_it_advance(c.before), c.after) << c.what;
}

} // namespace
} // namespace tvsim
