/* The handover to a Linux kernel's 32-bit entry, as 200 bytes of position-
 * independent code and data that the loader copies into the zero page's
 * block once the boot services are gone, and calls there:
 *
 *   void stub(uint64_t entry, uint64_t zeroPage, uint64_t self)
 *
 * It leaves long mode for flat 32-bit protected mode with paging off and
 * jumps to `entry` with ESI pointing at the zero page, as the boot protocol
 * asks.  Every address involved lies below 4 GiB.
 *
 * Layout: 64-bit code at 0x00, 32-bit code at 0x37, the descriptor table
 * at 0x80 (selector 0x10 flat 32-bit code, 0x18 flat data, the selectors
 * the kernel expects), the LGDT operand at 0xA0 (base patched), a null
 * LIDT operand at 0xAA, the far pointer to the 32-bit code at 0xC0 (offset
 * patched). */

	.section .text.handover, "ax"
	.globl	LinuxHandoverStub
	.type	LinuxHandoverStub, @object
	.p2align 4
LinuxHandoverStub:
	.code64
	movq	%rdx, %rsp              /* a stack inside our own block */
	leaq	0x80(%rdx), %rax
	movq	%rax, 0xA2(%rdx)        /* GDT base */
	leaq	0x37(%rdx), %rax
	movl	%eax, 0xC0(%rdx)        /* far pointer offset */
	movq	%rdi, %rbx              /* the entry survives in EBX */
	cli
	lidt	0xAA(%rdx)
	lgdt	0xA0(%rdx)
	ljmpl	*0xC0(%rdx)             /* compatibility mode, CS 0x10 */
	.org	LinuxHandoverStub + 0x37, 0xCC
	.code32
	movl	$0x18, %eax
	movl	%eax, %ds
	movl	%eax, %es
	movl	%eax, %fs
	movl	%eax, %gs
	movl	%eax, %ss
	movl	%cr0, %eax             /* paging off: long mode ends */
	andl	$0x7FFFFFFF, %eax
	movl	%eax, %cr0
	movl	$0xC0000080, %ecx
	rdmsr                           /* EFER.LME off */
	andl	$0xFFFFFEFF, %eax
	wrmsr
	movl	%cr4, %eax             /* PSE and PAE off */
	andl	$0xFFFFFFCF, %eax
	movl	%eax, %cr4
	movl	%ebx, %eax             /* ESI holds the zero page already */
	xorl	%ebx, %ebx
	xorl	%ebp, %ebp
	xorl	%edi, %edi
	jmp	*%eax
	.org	LinuxHandoverStub + 0x80, 0xCC
	.quad	0
	.quad	0
	.quad	0x00CF9A000000FFFF
	.quad	0x00CF92000000FFFF
	.org	LinuxHandoverStub + 0xA0, 0
	.word	0x1F
	.quad	0
	.org	LinuxHandoverStub + 0xAA, 0
	.word	0
	.quad	0
	.org	LinuxHandoverStub + 0xC0, 0
	.long	0
	.word	0x10
	.org	LinuxHandoverStub + 200, 0
	.size	LinuxHandoverStub, . - LinuxHandoverStub
	.code64
	.section .note.GNU-stack, "", @progbits
