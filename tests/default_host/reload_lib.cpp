// A tiny library built twice (layouts a and b) with code of the same size and
// different frames around the same call: vrk_reload_call(fn, arg) calls
// fn(arg) from the same offset in both. Layout a addresses its frame by rbp,
// layout b by rsp and leaves rbp alone, so the rule of one build read for the
// other walks into the wrong frame. vrk_reload_local_at holds the address of
// a function without a dynamic symbol.
asm(R"(
    .text
    .globl vrk_reload_call
    .type vrk_reload_call, @function
    .p2align 4
vrk_reload_call:
    .cfi_startproc
)"
#if defined(VRK_RELOAD_LAYOUT_a)
    R"(
    pushq %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    movq %rsp, %rbp
    .cfi_def_cfa_register %rbp
    subq $16, %rsp
    movq %rdi, %rax
    movq %rsi, %rdi
    call *%rax
    leave
    .cfi_def_cfa %rsp, 8
    ret
)"
#else
    R"(
    subq $40, %rsp
    .cfi_def_cfa_offset 48
    .byte 0x0f, 0x1f, 0x40, 0x00 # a 4-byte nop: the call lands where layout a has it
    movq %rdi, %rax
    movq %rsi, %rdi
    call *%rax
    addq $40, %rsp
    .cfi_def_cfa_offset 8
    ret
)"
#endif
    R"(
    .cfi_endproc
    .size vrk_reload_call, .-vrk_reload_call

    .type vrk_reload_local, @function # no dynamic symbol
vrk_reload_local:
    ret
    .size vrk_reload_local, .-vrk_reload_local
    .pushsection .data.rel.ro, "aw"
    .globl vrk_reload_local_at
vrk_reload_local_at:
    .quad vrk_reload_local
    .popsection
)");
