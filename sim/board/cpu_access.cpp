#include "board/cpu_access.h"

namespace tvsim {

unsigned x86_access_width(const uint8_t *code) {
    unsigned operand = 4;
    const uint8_t *p = code;
    for (int i = 0; i < 14; ++i, ++p) {
        uint8_t b = *p;
        if (b == 0x66)
            operand = 2;
        else if ((b & 0xF0) == 0x40) {
            if ((b & 0x08) != 0)
                return 0; // a 64-bit operand: never a register access
        } else if (b != 0x67 && b != 0xF0 && b != 0xF2 && b != 0xF3 && b != 0x2E && b != 0x36 &&
                   b != 0x3E && b != 0x26 && b != 0x64 && b != 0x65)
            break;
    }
    switch (*p) {
    case 0x0F:
        if (p[1] == 0xB6 || p[1] == 0xBE)
            return 1;
        return p[1] == 0xB7 || p[1] == 0xBF ? 2 : 0;
    case 0x38:
    case 0x3A:
    case 0x80:
    case 0x84:
    case 0x88:
    case 0x8A:
    case 0xC6:
    case 0xF6:
        return 1;
    case 0x39:
    case 0x3B:
    case 0x81:
    case 0x83:
    case 0x85:
    case 0x89:
    case 0x8B:
    case 0xC7:
    case 0xF7:
        return operand;
    default:
        return 0;
    }
}

namespace {

uint32_t bits(uint32_t v, unsigned hi, unsigned lo) {
    return (v >> lo) & ((1u << (hi - lo + 1)) - 1);
}

// 16-bit Thumb: LDR/STR{,B,H} with a 5-bit immediate or a register offset.
ArmAccess thumb16(uint16_t hw) {
    ArmAccess a;
    unsigned op5 = bits(hw, 15, 11);
    a.rt = bits(hw, 2, 0);
    a.rn = bits(hw, 5, 3);
    if (op5 >= 0b01100 && op5 <= 0b10001) {
        static constexpr unsigned kWidth[] = {4, 4, 1, 1, 2, 2};
        a.width = kWidth[op5 - 0b01100];
        a.load = (op5 & 1) != 0;
        a.imm = bits(hw, 10, 6) * a.width;
        a.length = 2;
    } else if (bits(hw, 15, 12) == 0b0101) {
        static constexpr unsigned kWidth[] = {4, 2, 1, 1, 4, 2, 1, 2};
        unsigned op = bits(hw, 11, 9);
        a.width = kWidth[op];
        a.load = op >= 3;
        a.sign_extend = op == 3 || op == 7;
        a.rm = static_cast<int>(bits(hw, 8, 6));
        a.length = 2;
    }
    return a;
}

// 32-bit Thumb-2: LDR/STR{,B,H}, LDRS{B,H} (immediate 12, immediate 8 with index and
// writeback, register with shift).
ArmAccess thumb32(uint16_t hw1, uint16_t hw2) {
    ArmAccess a;
    unsigned size = bits(hw1, 6, 5);
    bool sign = (hw1 & 0x100) != 0;
    a.load = (hw1 & 0x10) != 0;
    a.rn = bits(hw1, 3, 0);
    a.rt = bits(hw2, 15, 12);
    if ((hw1 & 0xFE00) != 0xF800 || size == 3 || (sign && (!a.load || size == 2)) || a.rn == 15 ||
        a.rt == 15)
        return {};
    a.width = 1u << size;
    a.sign_extend = sign;
    if ((hw1 & 0x80) != 0) {
        a.imm = bits(hw2, 11, 0);
    } else if ((hw2 & 0x800) != 0) {
        a.index = (hw2 & 0x400) != 0;
        a.add = (hw2 & 0x200) != 0;
        a.writeback = (hw2 & 0x100) != 0;
        if (!a.index && !a.writeback)
            return {};
        a.imm = bits(hw2, 7, 0);
    } else if (bits(hw2, 11, 6) == 0 && bits(hw2, 3, 0) != 15) {
        a.rm = static_cast<int>(bits(hw2, 3, 0));
        a.shift = bits(hw2, 5, 4);
    } else {
        return {};
    }
    a.length = 4;
    return a;
}

} // namespace

ArmAccess decode_thumb(uint16_t hw1, uint16_t hw2) {
    return bits(hw1, 15, 11) >= 0b11101 ? thumb32(hw1, hw2) : thumb16(hw1);
}

ArmAccess decode_arm(uint32_t insn) {
    ArmAccess a;
    if (bits(insn, 31, 28) == 0xF)
        return {};
    bool p = (insn >> 24) & 1;
    a.add = (insn >> 23) & 1;
    a.load = (insn >> 20) & 1;
    a.rn = bits(insn, 19, 16);
    a.rt = bits(insn, 15, 12);
    a.index = p;
    a.writeback = !p || ((insn >> 21) & 1) != 0;
    if (bits(insn, 27, 26) == 0b01) { // word and unsigned byte
        a.width = (insn >> 22) & 1 ? 1 : 4;
        if ((insn >> 25) & 1) {
            if ((insn & 0x10) != 0 || bits(insn, 6, 5) != 0) // only LSL shifts
                return {};
            a.rm = static_cast<int>(bits(insn, 3, 0));
            a.shift = bits(insn, 11, 7);
        } else {
            a.imm = bits(insn, 11, 0);
        }
    } else if (bits(insn, 27, 25) == 0 && (insn & 0x90) == 0x90 && bits(insn, 6, 5) != 0) {
        unsigned op2 = bits(insn, 6, 5);
        if (!a.load && op2 != 1)
            return {}; // LDRD/STRD
        a.width = op2 == 2 ? 1 : 2;
        a.sign_extend = op2 != 1;
        if ((insn >> 22) & 1)
            a.imm = (bits(insn, 11, 8) << 4) | bits(insn, 3, 0);
        else if (bits(insn, 11, 8) == 0)
            a.rm = static_cast<int>(bits(insn, 3, 0));
        else
            return {};
    } else {
        return {};
    }
    if (a.rn == 15 || a.rt == 15 || a.rm == 15)
        return {};
    a.length = 4;
    return a;
}

uint32_t arm_access_address(const ArmAccess &a, const uint32_t *regs, uint32_t *base_after) {
    uint32_t offset = a.rm >= 0 ? regs[a.rm] << a.shift : a.imm;
    uint32_t base = regs[a.rn];
    uint32_t moved = a.add ? base + offset : base - offset;
    *base_after = a.writeback ? moved : base;
    return a.index ? moved : base;
}

uint32_t arm_it_advance(uint32_t cpsr) {
    uint32_t it = ((cpsr >> 8) & 0xFC) | ((cpsr >> 25) & 0x3);
    if (it == 0)
        return cpsr;
    // The last instruction of the block ends it; otherwise the condition's mask moves on.
    it = (it & 0x7) == 0 ? 0 : (it & 0xE0) | ((it << 1) & 0x1F);
    cpsr &= ~((0x3Fu << 10) | (0x3u << 25));
    return cpsr | ((it & 0xFC) << 8) | ((it & 0x3) << 25);
}

} // namespace tvsim
