#ifndef CRASHHANDLER_WIN_P_H
#define CRASHHANDLER_WIN_P_H

// Internal to the Windows side of the crash layer: text conversions between the Win32 wide and
// ANSI interfaces and the UTF-8 that the layer hands to the crash routine. Defined in
// CrashHandler_win.cpp; declared here without <windows.h> so that no header of the layer pulls it
// in.

#include <string>

namespace KrCrash {

// UTF-16 to UTF-8; an empty text for null.
std::string toUtf8(const wchar_t *text);
// Text in the system's ANSI code page (what DbgHelp's narrow functions return) to UTF-8.
std::string ansiToUtf8(const char *text);
// UTF-8 to UTF-16; an empty text for null.
std::wstring toWide(const char *text);

} // namespace KrCrash

#endif // CRASHHANDLER_WIN_P_H
