# Runs a Windows test program under wine64 in a wine prefix of its own, made for the run in a
# temporary directory and removed afterwards, so that no earlier run and no user's prefix matters.
#
#   cmake -DWINE=<wine64> -DWINESERVER=<wineserver> -DPROGRAM=<program.exe> -DTIME_LIMIT=<seconds>
#         -P RunUnderWine.cmake

foreach(variable WINE WINESERVER PROGRAM TIME_LIMIT)
    if(NOT DEFINED ${variable})
        message(FATAL_ERROR "RunUnderWine.cmake: ${variable} is not set")
    endif()
endforeach()

if(DEFINED ENV{TMPDIR} AND IS_DIRECTORY "$ENV{TMPDIR}")
    set(temp_root "$ENV{TMPDIR}")
else()
    set(temp_root /tmp)
endif()
string(RANDOM LENGTH 10 suffix)
set(prefix "${temp_root}/krutils-wine-${suffix}")
file(MAKE_DIRECTORY "${prefix}")

set(ENV{WINEPREFIX} "${prefix}")
set(ENV{WINEDEBUG} "-all")
# No Mono or Gecko installer while the prefix is made, and no window.
set(ENV{WINEDLLOVERRIDES} "mscoree,mshtml=")
unset(ENV{DISPLAY})

string(TIMESTAMP started "%s")
# The prefix is the working directory too, so that the program's working directory differs from its
# application directory, as a client's may.
execute_process(COMMAND "${WINE}" "${PROGRAM}"
    WORKING_DIRECTORY "${prefix}"
    TIMEOUT ${TIME_LIMIT}
    RESULT_VARIABLE result)
string(TIMESTAMP ended "%s")
math(EXPR seconds "${ended} - ${started}")

# Stops this prefix's server and its services before the prefix goes.
execute_process(COMMAND "${WINESERVER}" -k RESULT_VARIABLE ignored OUTPUT_QUIET ERROR_QUIET)
file(REMOVE_RECURSE "${prefix}")

# wine passes on only the low byte of the program's exit status.
if(NOT result STREQUAL "0")
    message(FATAL_ERROR "${PROGRAM} under wine failed after ${seconds} s: ${result}")
endif()
message(STATUS "${PROGRAM} passed under wine in ${seconds} s")
