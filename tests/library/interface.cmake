# Compares the interface's dump with the committed one, or writes it anew: -D DUMP=command -D GOLDEN=file [-D UPDATE=ON]
if(UPDATE)
    execute_process(COMMAND ${DUMP} OUTPUT_FILE ${GOLDEN} COMMAND_ERROR_IS_FATAL ANY)
    return()
endif()
execute_process(COMMAND ${DUMP} COMMAND diff -u ${GOLDEN} - RESULTS_VARIABLE results)
if(NOT results STREQUAL "0;0")
    message(FATAL_ERROR "The interface is not that of ${GOLDEN} (above). If the change is meant, write the file anew "
                        "with ./dev interface and commit it.")
endif()
