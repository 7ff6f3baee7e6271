// Reading the loads and stores a program makes to a register window from its machine code.
#include "board/cpu_access.h"

#include <gtest/gtest.h>
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

struct Expect {
    unsigned length, width;
    bool load, sign;
    unsigned rt, rn;
    int rm;
    unsigned shift, imm;
    bool add, index, writeback;
};

void expect_access(const ArmAccess &a, const Expect &e, const char *what) {
    EXPECT_EQ(a.length, e.length) << what;
    if (e.length == 0)
        return;
    EXPECT_EQ(a.width, e.width) << what;
    EXPECT_EQ(a.load, e.load) << what;
    EXPECT_EQ(a.sign_extend, e.sign) << what;
    EXPECT_EQ(a.rt, e.rt) << what;
    EXPECT_EQ(a.rn, e.rn) << what;
    EXPECT_EQ(a.rm, e.rm) << what;
    EXPECT_EQ(a.shift, e.shift) << what;
    EXPECT_EQ(a.imm, e.imm) << what;
    EXPECT_EQ(a.add, e.add) << what;
    EXPECT_EQ(a.index, e.index) << what;
    EXPECT_EQ(a.writeback, e.writeback) << what;
}

constexpr Expect kRefused = {};

TEST(ArmAccessDecode, ThumbEncodings) {
    const struct {
        const char *what;
        uint16_t hw1, hw2;
        Expect e;
    } cases[] = {
        {"str r4,[r3,r2]", 0x509C, 0, {2, 4, false, false, 4, 3, 2, 0, 0, true, true, false}},
        {"ldrh r0,[r2,r3]", 0x5AD0, 0, {2, 2, true, false, 0, 2, 3, 0, 0, true, true, false}},
        {"ldrsb r1,[r2,r3]", 0x56D1, 0, {2, 1, true, true, 1, 2, 3, 0, 0, true, true, false}},
        {"ldrsh r1,[r2,r3]", 0x5ED1, 0, {2, 2, true, true, 1, 2, 3, 0, 0, true, true, false}},
        {"strh r1,[r3,#0]", 0x8019, 0, {2, 2, false, false, 1, 3, -1, 0, 0, true, true, false}},
        {"ldr r2,[r2,#4]", 0x6852, 0, {2, 4, true, false, 2, 2, -1, 0, 4, true, true, false}},
        {"ldrb r0,[r1,#3]", 0x78C8, 0, {2, 1, true, false, 0, 1, -1, 0, 3, true, true, false}},
        {"strh.w r8,[r1,r4]",
         0xF821,
         0x8004,
         {4, 2, false, false, 8, 1, 4, 0, 0, true, true, false}},
        {"ldr.w r3,[r3,r0,lsl #3]",
         0xF853,
         0x3030,
         {4, 4, true, false, 3, 3, 0, 3, 0, true, true, false}},
        {"ldr.w r4,[sp],#4",
         0xF85D,
         0x4B04,
         {4, 4, true, false, 4, 13, -1, 0, 4, true, false, true}},
        {"ldr.w r3,[sl]", 0xF8DA, 0x3000, {4, 4, true, false, 3, 10, -1, 0, 0, true, true, false}},
        {"ldrh.w r0,[r1,#-2]!",
         0xF831,
         0x0D02,
         {4, 2, true, false, 0, 1, -1, 0, 2, false, true, true}},
        {"ldrsh.w r0,[r1,#6]",
         0xF9B1,
         0x0006,
         {4, 2, true, true, 0, 1, -1, 0, 6, true, true, false}},
        {"ldrd r0,r1,[r2]", 0xE9D2, 0x0100, kRefused},
        {"ldr.w r0,[pc,#8]", 0xF8DF, 0x0008, kRefused},
        {"ldmia r0!,{r0,r1}", 0xC803, 0, kRefused},
        {"ldr r0,[sp,#4]", 0x9801, 0, kRefused},
    };
    for (const auto &c : cases)
        expect_access(decode_thumb(c.hw1, c.hw2), c.e, c.what);
}

TEST(ArmAccessDecode, ArmEncodings) {
    const struct {
        const char *what;
        uint32_t insn;
        Expect e;
    } cases[] = {
        {"ldr r0,[r1,#4]", 0xE5910004, {4, 4, true, false, 0, 1, -1, 0, 4, true, true, false}},
        {"str r2,[r3,#-8]!", 0xE5232008, {4, 4, false, false, 2, 3, -1, 0, 8, false, true, true}},
        {"ldrb r0,[r1],#1", 0xE4D10001, {4, 1, true, false, 0, 1, -1, 0, 1, true, false, true}},
        {"ldr r0,[r1,r2,lsl #2]",
         0xE7910102,
         {4, 4, true, false, 0, 1, 2, 2, 0, true, true, false}},
        {"strh r1,[r2,#6]", 0xE1C210B6, {4, 2, false, false, 1, 2, -1, 0, 6, true, true, false}},
        {"ldrsh r0,[r1,r2]", 0xE19100F2, {4, 2, true, true, 0, 1, 2, 0, 0, true, true, false}},
        {"ldrsb r0,[r1,#1]", 0xE1D100D1, {4, 1, true, true, 0, 1, -1, 0, 1, true, true, false}},
        {"ldrd r0,[r1]", 0xE1C100D0, kRefused},
        {"ldr r0,[r1,r2,lsr #2]", 0xE7910122, kRefused},
        {"ldm r1,{r0,r1}", 0xE8910003, kRefused},
        {"pld [r1]", 0xF5D1F000, kRefused},
    };
    for (const auto &c : cases)
        expect_access(decode_arm(c.insn), c.e, c.what);
}

TEST(ArmAccessDecode, AddressAndWriteback) {
    uint32_t regs[16] = {};
    regs[1] = 0x1000;
    regs[2] = 3;
    uint32_t base_after = 0;
    // Post-indexed: the access at the base, the base moved after.
    EXPECT_EQ(arm_access_address(decode_arm(0xE4D10001), regs, &base_after), 0x1000u);
    EXPECT_EQ(base_after, 0x1001u);
    // Pre-indexed with writeback, subtracted.
    EXPECT_EQ(arm_access_address(decode_thumb(0xF831, 0x0D02), regs, &base_after), 0xFFEu);
    EXPECT_EQ(base_after, 0xFFEu);
    // Register offset, shifted; the base stays.
    EXPECT_EQ(arm_access_address(decode_arm(0xE7910102), regs, &base_after), 0x100Cu);
    EXPECT_EQ(base_after, 0x1000u);
}

} // namespace
} // namespace tvsim
