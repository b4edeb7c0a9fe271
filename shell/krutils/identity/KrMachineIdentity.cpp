// The part of the machine identity that both platforms share: the processor's signature. The
// instruction is the same on Windows and Linux; only the compilers spell it differently.

#include "KrMachineIdentity_p.h"

#if defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#include <intrin.h>
#define KR_CPUID_MSVC
#elif defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#define KR_CPUID_GNU
#endif

namespace KrMachine {

CpuSignature cpuSignature()
{
    CpuSignature signature;
#if defined(KR_CPUID_MSVC)
    int registers[4] = {};
    __cpuidex(registers, 1, 0);
    signature.ok = true;
    signature.eax = static_cast<uint32_t>(registers[0]);
    signature.edx = static_cast<uint32_t>(registers[3]);
#elif defined(KR_CPUID_GNU)
    // Every x86-64 processor has leaf 1; the maximum leaf is asked all the same, as 32-bit x86
    // once had processors without it.
    if (__get_cpuid_max(0, nullptr) >= 1) {
        unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
        __cpuid_count(1, 0, eax, ebx, ecx, edx);
        signature.ok = true;
        signature.eax = eax;
        signature.edx = edx;
    }
#endif
    return signature;
}

} // namespace KrMachine
