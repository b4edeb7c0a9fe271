# Configures and builds the fuzz project, then fuzzes the workbook reader for a bounded time on a
# fresh copy of the seed corpus: the test fixtures as they are, and with stored entries in UTF-8
# and in UTF-16. Fails when libFuzzer reports a crash, a leak, a timeout or running out of memory.
#
#   cmake -DSOURCE_DIR=<repo> -DWORK_DIR=<dir> -DGENERATOR=Ninja -DCXX=clang++-14
#         [-DSECONDS=60] -P fuzz/RunFuzzer.cmake
foreach(variable SOURCE_DIR WORK_DIR GENERATOR CXX)
    if(NOT DEFINED ${variable})
        message(FATAL_ERROR "RunFuzzer.cmake needs -D${variable}=...")
    endif()
endforeach()
if(NOT DEFINED SECONDS)
    set(SECONDS 60)
endif()

set(build_dir ${WORK_DIR}/build)
execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/fuzz -B ${build_dir} -G ${GENERATOR}
            -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=RelWithDebInfo
    RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "configuring the fuzz project failed (is libfuzzer-14-dev installed?)")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${build_dir} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "building the fuzz project failed")
endif()

set(corpus ${WORK_DIR}/corpus)
set(artifacts ${WORK_DIR}/artifacts/)
file(REMOVE_RECURSE ${corpus} ${artifacts})
file(MAKE_DIRECTORY ${corpus} ${artifacts})
file(GLOB seeds ${SOURCE_DIR}/tests/workbook/data/xlsx/*.xlsx)
foreach(seed IN LISTS seeds)
    get_filename_component(name ${seed} NAME_WE)
    file(COPY ${seed} DESTINATION ${corpus})
    execute_process(COMMAND ${build_dir}/stored_copy ${seed} ${corpus}/${name}_stored.xlsx
                    RESULT_VARIABLE result)
    execute_process(COMMAND ${build_dir}/stored_copy ${seed} ${corpus}/${name}_utf16.xlsx utf16
                    RESULT_VARIABLE result16)
    if(NOT result EQUAL 0 OR NOT result16 EQUAL 0)
        message(FATAL_ERROR "cannot make stored copies of ${seed}")
    endif()
endforeach()

set(log ${WORK_DIR}/fuzz.log)
execute_process(
    COMMAND ${build_dir}/fuzz_krxlsxreader -max_total_time=${SECONDS} -timeout=10 -rss_limit_mb=2048
            -print_final_stats=1 -dict=${SOURCE_DIR}/fuzz/xlsx.dict -artifact_prefix=${artifacts}
            ${corpus}
    RESULT_VARIABLE result
    OUTPUT_FILE ${log}
    ERROR_FILE ${log})

# libFuzzer's own summary: its DONE line (execs, cov, ft, corp) and its final stats. Only those
# lines are read: the others quote dictionary entries whose brackets CMake's lists would mangle.
file(STRINGS ${log} done REGEX "^#[0-9]+[ \t]+DONE ")
file(STRINGS ${log} stats REGEX "^stat::")
message(STATUS "${done}")
foreach(line IN LISTS stats)
    message(STATUS "${line}")
endforeach()
if(NOT result EQUAL 0)
    file(READ ${log} output)
    string(LENGTH "${output}" length)
    if(length GREATER 20000)
        math(EXPR start "${length} - 20000")
        string(SUBSTRING "${output}" ${start} -1 output)
    endif()
    message(FATAL_ERROR "${output}\nlibFuzzer found a problem (exit ${result}); inputs in ${artifacts}")
endif()
