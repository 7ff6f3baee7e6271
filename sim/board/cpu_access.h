// The loads and stores a program makes to a register window, read from its machine code so
// that the simulator sees each one with its width (and, on 32-bit ARM, carries it out).
#pragma once

#include <cstdint>

namespace tvsim {

// Width in bytes (1, 2 or 4) of the memory operand of the x86-64 instruction at code (a plain
// move, compare or test), or 0 for any other instruction.
unsigned x86_access_width(const uint8_t *code);

// A single load or store of 32-bit ARM code (A32 or Thumb-2): LDR, STR, LDRH, STRH, LDRB,
// STRB, LDRSH, LDRSB with an immediate or register offset, plain, pre- or post-indexed.
struct ArmAccess {
    unsigned length = 0; // bytes of the instruction; 0 when it is not such an access
    bool load = false;
    unsigned width = 0; // 1, 2 or 4 bytes
    bool sign_extend = false;
    unsigned rt = 0;
    unsigned rn = 0;
    int rm = -1;        // register offset, or -1 for the immediate
    unsigned shift = 0; // left shift of rm
    uint32_t imm = 0;
    bool add = true;   // the offset is added (else subtracted)
    bool index = true; // the address includes the offset (else post-indexed)
    bool writeback = false;
};

// hw2 is the halfword after hw1 (used when hw1 begins a 32-bit instruction).
ArmAccess decode_thumb(uint16_t hw1, uint16_t hw2);
ArmAccess decode_arm(uint32_t insn);

// The address the access reaches with registers r0-r15; *base_after is rn's value afterwards.
uint32_t arm_access_address(const ArmAccess &a, const uint32_t *regs, uint32_t *base_after);

// The status register after one Thumb instruction of an IT block has executed: its IT bits
// (7-2 in bits 15-10, 1-0 in bits 26-25) advanced, every other bit as it was.
uint32_t arm_it_advance(uint32_t cpsr);

} // namespace tvsim
