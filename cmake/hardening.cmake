# What hardens programs, where the flags that they are built with, or the compiler by itself, don't ask for as much or
# more: what comes last would win, and might be weaker.
include(CheckCXXSourceCompiles)

# asks_for(RESULT CONDITION): whether the preprocessor finds a condition true, by the flags of this build.
function(asks_for result condition)
    set(CMAKE_TRY_COMPILE_CONFIGURATION ${CMAKE_BUILD_TYPE})
    set(CMAKE_REQUIRED_QUIET ON)
    unset(${result} CACHE) # the flags may have changed
    check_cxx_source_compiles("#if !(${condition})\n#error\n#endif\nint main() { return 0; }" ${result})
endfunction()
asks_for(TARN_STACK_PROTECTED "defined __SSP__ || defined __SSP_STRONG__ || defined __SSP_ALL__")
asks_for(TARN_FORTIFIED "defined _FORTIFY_SOURCE")

# hardening(RESULT STACK_PROTECTOR): the compile options.
function(hardening result stack_protector)
    set(options "")
    if(NOT TARN_STACK_PROTECTED)
        list(APPEND options ${stack_protector})
    endif()
    if(NOT TARN_FORTIFIED AND NOT TARN_SANITIZED)
        list(APPEND options $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
    endif()
    set(${result} ${options} PARENT_SCOPE)
endfunction()
