# Debian's musl, with the machine's own compiler. It has no C++ library, which the library needs the headers of only.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_HOST_SYSTEM_PROCESSOR})
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(TARN_NO_CXX_LIBRARY ON)
execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -print-multiarch OUTPUT_VARIABLE multiarch OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -print-file-name=include OUTPUT_VARIABLE own OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REPLACE -gnu -musl musl ${multiarch})
set(CMAKE_CXX_FLAGS_INIT "-nostdinc -isystem /usr/include/c++/${version} -isystem /usr/include/${multiarch}/c++/${version} \
-isystem /usr/include/${musl} -isystem ${own} -include ${CMAKE_CURRENT_LIST_DIR}/musl.h")
set(CMAKE_CROSSCOMPILING_EMULATOR env) # its programs run here as they are
