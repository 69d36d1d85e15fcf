/* Exported entry points of libqelr.
 *
 * Each export is a fixed entry that jumps through its slot of
 * qelr_entry_table (entry_table.cpp). The jump leaves every argument
 * register and the stack as the caller set them, so the implementation
 * receives the call exactly as made, whatever its prototype. */

        .text
        .set qelr_slot, 0

        .macro qelr_entry name
        .globl \name
        .type \name, @function
        .p2align 4
\name:
        jmp *(qelr_entry_table + 8 * qelr_slot)(%rip)
        .size \name, . - \name
        .set qelr_slot, qelr_slot + 1
        .endm

#define QELR_EXPORT(name) qelr_entry name
#include "core/exports.inc"
#undef QELR_EXPORT

        .section .note.GNU-stack, "", @progbits
