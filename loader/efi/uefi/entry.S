/* First code of the image: the firmware calls _ModuleEntryPoint with the
 * Microsoft calling convention (RCX image handle, RDX system table).
 *
 * The image is linked at 0 and nothing has relocated it yet, so no code that
 * might read an absolute address may run before _relocate: that is why this
 * step is in assembly and not in C++.  Afterwards control goes on in
 * EfiImageEntry, an ms_abi function, with the original arguments and stack. */

	.text
	.globl	_ModuleEntryPoint
	.type	_ModuleEntryPoint, @function
_ModuleEntryPoint:
	/* RDI and RSI are callee-saved for our caller but not for the SysV
	 * _relocate; RCX and RDX must survive for EfiImageEntry.  Four pushes
	 * plus the return address leave RSP 8 bytes off a 16-byte boundary. */
	pushq	%rdi
	pushq	%rsi
	pushq	%rcx
	pushq	%rdx
	subq	$8, %rsp
	leaq	ImageBase(%rip), %rdi
	leaq	_DYNAMIC(%rip), %rsi
	call	_relocate
	addq	$8, %rsp
	popq	%rdx
	popq	%rcx
	popq	%rsi
	popq	%rdi
	testq	%rax, %rax
	jnz	1f
	jmp	EfiImageEntry
1:	ret
	.size	_ModuleEntryPoint, . - _ModuleEntryPoint

/* One base-relocation block with two padding entries (type 0, "absolute"):
 * the firmware's loader refuses an image without a relocation directory,
 * while the real fix-ups are the ELF ones applied above. */
	.section .reloc, "a"
	.long	0
	.long	12
	.word	0
	.word	0

	.section .note.GNU-stack, "", @progbits
