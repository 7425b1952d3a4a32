/*
 * NTSTATUS VrkFsGuardedProbe(PMDL Mdl, ULONG AccessMode, ULONG Operation), cdecl.
 *
 * MmProbeAndLockPages under an exception handler. The compiler has no structured exceptions, and a registration record
 * that C++ code pushes cannot be kept safe from the compiler's own use of the stack, so the frame is laid out here:
 *
 *     ebp + 8     the three arguments
 *     ebp         the caller's ebp
 *     ebp - 12    ebx, esi, edi
 *     ebp - 16    status
 *     ebp - 24    registration record: previous record, handler; on the thread's chain at fs:0
 *
 * An exception of the probe leaves through the handler, which unwinds to this frame and returns the exception's code.
 */
        .text

        .set    kRecordToStatus, 8      /* from the record up */
        .set    kRecordToFrame, 24
        .set    kExceptionFlags, 4      /* EXCEPTION_RECORD.ExceptionFlags, behind ExceptionCode */
        .set    kUnwinding, 6           /* EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND */
        .set    kContinueSearch, 1      /* ExceptionContinueSearch */

        .globl  _VrkFsGuardedProbe
        .def    _VrkFsGuardedProbe; .scl 2; .type 32; .endef
_VrkFsGuardedProbe:
        pushl   %ebp
        movl    %esp, %ebp
        pushl   %ebx
        pushl   %esi
        pushl   %edi
        pushl   $0
        pushl   $ProbeHandler
        pushl   %fs:0
        movl    %esp, %fs:0
        pushl   16(%ebp)
        pushl   12(%ebp)
        pushl   8(%ebp)
        call    *__imp__MmProbeAndLockPages@12
ProbeLeave:                             /* esp is at the record */
        popl    %fs:0
        addl    $4, %esp
        popl    %eax
        popl    %edi
        popl    %esi
        popl    %ebx
        popl    %ebp
        ret

/* EXCEPTION_DISPOSITION ProbeHandler(PEXCEPTION_RECORD Exception, PVOID Record, PCONTEXT, PVOID), cdecl. */
ProbeHandler:
        pushl   %ebp
        movl    %esp, %ebp
        movl    8(%ebp), %ecx
        testl   $kUnwinding, kExceptionFlags(%ecx)
        jnz     ProbeSearch
        movl    (%ecx), %eax
        movl    12(%ebp), %edx
        movl    %eax, kRecordToStatus(%edx)
        cld
        pushl   $0                      /* return value: the status is in the frame already */
        pushl   $0                      /* no exception record: unwind to a target */
        pushl   $ProbeUnwound
        pushl   %edx
        call    *__imp__RtlUnwind@16
ProbeUnwound:                           /* every register but ebp and esp may have changed */
        movl    12(%ebp), %esp
        leal    kRecordToFrame(%esp), %ebp
        jmp     ProbeLeave
ProbeSearch:
        movl    $kContinueSearch, %eax
        popl    %ebp
        ret
