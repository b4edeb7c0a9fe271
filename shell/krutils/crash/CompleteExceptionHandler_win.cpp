// The Windows side of crash interception: the handlers of the system and of the C and C++
// runtimes, each turning its fatal event into a CrashEvent for the crash routine, which runs right
// here in the crashing thread. Free of Qt: it builds with mingw-w64 alone and its tests run under
// wine.
//
// Built with MSVC, every runtime function is called directly. With mingw-w64 some are missing from
// the import library or exported under MSVC's C++ names only; the helpers below say what stands
// in for each.

#include "CompleteExceptionHandler_p.h"
#include "CrashHandler_win_p.h"

#include <windows.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <new.h>
#include <string>

#if defined(_MSC_VER)
#include <eh.h>
#include <intrin.h>
#pragma intrinsic(_ReturnAddress)
#define KR_RETURN_ADDRESS() _ReturnAddress()
#else
#define KR_RETURN_ADDRESS() __builtin_return_address(0)
#endif

namespace KrCrash {

namespace {
std::atomic<CrashRoutine> crashRoutine {nullptr};
thread_local void *currentThreadTag = nullptr;

// The exception pointers of the handlers that the runtime calls without any: code 0,
// non-continuable, the handler's return address, and an all-zero context from which no stack
// can be walked. Taken from the process heap rather than with new, so that the allocation-failure
// handler cannot re-enter itself. Never freed: the process is on its way out, and the routine may
// keep them.
EXCEPTION_POINTERS *syntheticPointers(void *returnAddress)
{
    const HANDLE heap = GetProcessHeap();
    auto *record = static_cast<EXCEPTION_RECORD *>(
            HeapAlloc(heap, HEAP_ZERO_MEMORY, sizeof(EXCEPTION_RECORD)));
    auto *context = static_cast<CONTEXT *>(HeapAlloc(heap, HEAP_ZERO_MEMORY, sizeof(CONTEXT)));
    auto *pointers = static_cast<EXCEPTION_POINTERS *>(
            HeapAlloc(heap, HEAP_ZERO_MEMORY, sizeof(EXCEPTION_POINTERS)));
    if (!record || !context || !pointers)
        return nullptr;
    record->ExceptionCode = 0;
    record->ExceptionFlags = EXCEPTION_NONCONTINUABLE;
    record->ExceptionRecord = nullptr;
    record->ExceptionAddress = returnAddress;
    pointers->ExceptionRecord = record;
    pointers->ContextRecord = context;
    return pointers;
}

bool runRoutine(CrashEvent &event, EXCEPTION_POINTERS *pointers)
{
    ExceptionRecord record;
    if (pointers && pointers->ExceptionRecord) {
        record.code = pointers->ExceptionRecord->ExceptionCode;
        record.flags = pointers->ExceptionRecord->ExceptionFlags;
        record.address = reinterpret_cast<uintptr_t>(pointers->ExceptionRecord->ExceptionAddress);
        event.record = &record;
    }
    event.threadId = GetCurrentThreadId();
    event.threadTag = currentThreadTag;
    event.inCrashingThread = true;
    event.platformData = pointers;
    const CrashRoutine routine = crashRoutine.load();
    return routine && routine(event);
}

bool runSyntheticRoutine(Handler handler, void *returnAddress)
{
    CrashEvent event;
    event.handler = handler;
    return runRoutine(event, syntheticPointers(returnAddress));
}

LONG WINAPI catched_seh_handler(EXCEPTION_POINTERS *info)
{
    CrashEvent event;
    event.handler = Handler::Seh;
    runRoutine(event, info);
    return EXCEPTION_CONTINUE_SEARCH;
}

void __cdecl catched_sigabrt_handler(int)
{
    runSyntheticRoutine(Handler::SigAbrt, KR_RETURN_ADDRESS());
}

void __cdecl catched_sigint_handler(int)
{
    runSyntheticRoutine(Handler::SigInt, KR_RETURN_ADDRESS());
}

void __cdecl catched_terminate_handler()
{
    runSyntheticRoutine(Handler::Terminate, KR_RETURN_ADDRESS());
}

void __cdecl catched_unexpected_handler()
{
    runSyntheticRoutine(Handler::Unexpected, KR_RETURN_ADDRESS());
}

void __cdecl catched_pure_call_handler()
{
    runSyntheticRoutine(Handler::PureCall, KR_RETURN_ADDRESS());
}

int __cdecl catched_new_handler(size_t)
{
    runSyntheticRoutine(Handler::NewFailure, KR_RETURN_ADDRESS());
    return 0; // the allocation fails
}

// The runtime calls a SIGFPE handler with the sub-code (_FPE_...) as a second argument, and
// _pxcptinfoptrs holds its exception pointers for the signal being handled (null for raise()).
// mingw-w64's start-up code, which hands an image's own faults to the signal handlers, passes the
// signal number alone and sets no pointers: the sub-code is then meaningless.
void __cdecl catched_sigfpe_handler(int signalNumber, int subCode)
{
    CrashEvent event;
    event.handler = Handler::SigFpe;
    event.signalNumber = signalNumber;
    event.subCode = subCode;
    runRoutine(event, static_cast<EXCEPTION_POINTERS *>(_pxcptinfoptrs));
}

// The debug runtime passes the failed expression, function and file as wide texts; the release
// runtime passes null for all three and 0 for the line.
void __cdecl catched_invalid_parameter_handler(const wchar_t *expression, const wchar_t *function,
                                               const wchar_t *file, unsigned int line, uintptr_t)
{
    const std::string expressionText = toUtf8(expression);
    const std::string functionText = toUtf8(function);
    const std::string fileText = toUtf8(file);
    CrashEvent event;
    event.handler = Handler::InvalidParameter;
    event.expression = expression ? expressionText.c_str() : nullptr;
    event.function = function ? functionText.c_str() : nullptr;
    event.file = file ? fileText.c_str() : nullptr;
    event.line = line;
    runRoutine(event, syntheticPointers(KR_RETURN_ADDRESS()));
}

using SignalHandler = void(__cdecl *)(int);

SignalHandler floatingPointSignalHandler()
{
    // signal() takes the one-argument type; the runtime calls SIGFPE handlers with two.
    return reinterpret_cast<SignalHandler>(reinterpret_cast<void (*)()>(catched_sigfpe_handler));
}

#if defined(_MSC_VER)

void setPureCallHandler(_purecall_handler handler)
{
    _set_purecall_handler(handler);
}

void setInvalidParameterHandler(_invalid_parameter_handler handler)
{
    _set_invalid_parameter_handler(handler);
}

void setNewHandler(_PNH handler)
{
    _set_new_handler(handler);
}

void setAbortBehavior(unsigned int flags, unsigned int mask)
{
    _set_abort_behavior(flags, mask);
}

#else // mingw-w64

// The C runtime's own export of `name`, or null where it has none: msvcrt.dll's set of handler
// setters differs between Windows versions, and wine's has none of the ones looked up here.
template<typename Function> Function runtimeFunction(const char *name)
{
#if defined(_UCRT)
    const HMODULE runtime = GetModuleHandleW(L"ucrtbase.dll");
#else
    const HMODULE runtime = GetModuleHandleW(L"msvcrt.dll");
#endif
    if (!runtime)
        return nullptr;
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(runtime, name)));
}

// Installed where msvcrt.dll's _purecall looks, when it has the setter, and always into
// mingw-w64's stand-in. Code built by g++ never comes here: its pure calls go to
// __cxa_pure_virtual, which ends in std::terminate and so in the terminate handler.
void setPureCallHandler(_purecall_handler handler)
{
    using Setter = _purecall_handler(__cdecl *)(_purecall_handler);
    if (const auto setter = runtimeFunction<Setter>("_set_purecall_handler"))
        setter(handler);
    _set_purecall_handler(handler);
}

// As for pure calls: msvcrt.dll's own setter where it has one, and mingw-w64's stand-in.
// msvcrt.dll's checked functions report to its own handler only.
void setInvalidParameterHandler(_invalid_parameter_handler handler)
{
    using Setter = _invalid_parameter_handler(__cdecl *)(_invalid_parameter_handler);
    if (const auto setter = runtimeFunction<Setter>("_set_invalid_parameter_handler"))
        setter(handler);
    _set_invalid_parameter_handler(handler);
}

// msvcrt.dll exports _set_new_handler under its MSVC-decorated C++ name only, which no g++
// declaration can reach. Its handler serves msvcrt's allocations (_callnewh, malloc in new mode
// 1); libstdc++'s operator new keeps its own std::new_handler, which is left alone, since a
// handler that returns there would be called again forever.
void setNewHandler(_PNH handler)
{
    using Setter = _PNH(__cdecl *)(_PNH);
    if (const auto setter = runtimeFunction<Setter>("?_set_new_handler@@YAP6AH_K@ZP6AH0@Z@Z"))
        setter(handler);
}

// Not every msvcrt.dll exports the switch (wine's does not), and mingw-w64's import library
// does not name it; where the runtime has none, there is nothing to switch on.
void setAbortBehavior(unsigned int flags, unsigned int mask)
{
    using Setter = unsigned int(__cdecl *)(unsigned int, unsigned int);
    if (const auto setter = runtimeFunction<Setter>("_set_abort_behavior"))
        setter(flags, mask);
}

#endif

void setUnexpectedHandler(void(__cdecl *handler)())
{
#if defined(_MSC_VER)
    // C++17 no longer names it in std; the runtime's own setter in <eh.h> remains.
    ::set_unexpected(handler);
#elif defined(__GLIBCXX__) && _GLIBCXX_USE_DEPRECATED
    // libstdc++ keeps std::set_unexpected in C++17 as a deprecated name; std::unexpected() and
    // code built for older standards in the same process still reach the handler.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    std::set_unexpected(handler);
#pragma GCC diagnostic pop
#else
    // A runtime without the setter has no unexpected handler left to call.
    (void)handler;
#endif
}
} // namespace

void installProcessHandlers(CrashRoutine routine)
{
    crashRoutine.store(routine);
    SetUnhandledExceptionFilter(catched_seh_handler);
    setPureCallHandler(catched_pure_call_handler);
    setNewHandler(catched_new_handler);
    setInvalidParameterHandler(catched_invalid_parameter_handler);
    setAbortBehavior(_CALL_REPORTFAULT, _CALL_REPORTFAULT);
    std::signal(SIGABRT, catched_sigabrt_handler);
    std::signal(SIGINT, catched_sigint_handler);
}

void installThreadHandlers(void *threadTag, CrashRoutine routine)
{
    crashRoutine.store(routine);
    currentThreadTag = threadTag;
    std::set_terminate(catched_terminate_handler);
    setUnexpectedHandler(catched_unexpected_handler);
    std::signal(SIGFPE, floatingPointSignalHandler());
}

} // namespace KrCrash
