# The peers' schemas and code. The tools that write them run on the workstation: a cross build takes what a native one
# wrote, in BENCH_GENERATED, and nanopb's library for the target from the folder NANOPB_ROOT.
if(CMAKE_CROSSCOMPILING)
    set(BENCH_GENERATED "" CACHE PATH "bench/generated of a native build")
    set(NANOPB_ROOT "" CACHE PATH "where nanopb_arm.sh unpacked the target's nanopb")
    set(generated ${BENCH_GENERATED})
    set(nanopb_library ${NANOPB_ROOT}/usr/lib/arm-linux-gnueabihf/libprotobuf-nanopb.a)
    set(nanopb_include ${NANOPB_ROOT}/usr/include)
    foreach(file ${generated}/nanopb/bench.pb.c ${nanopb_library})
        if(NOT EXISTS ${file})
            message(FATAL_ERROR "bench/: ${file} is missing; set BENCH_GENERATED and NANOPB_ROOT")
        endif()
    endforeach()
else()
    find_package(Protobuf REQUIRED)
    find_program(CAPNP capnp REQUIRED)
    find_program(NANOPB_GENERATOR nanopb_generator.py REQUIRED)
    find_library(nanopb_library protobuf-nanopb REQUIRED)
    set(nanopb_include /usr/include)
    set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated)

    add_executable(bench_schema schema.cpp)
    target_link_libraries(bench_schema PRIVATE bench_messages tarn_own_code)
    set(schemas)
    foreach(file bench.proto bench.options bench.capnp all.proto all.options protobuf_carriers.h capnp_carriers.h
            nanopb_carriers.h)
        list(APPEND schemas ${generated}/${file})
    endforeach()
    add_custom_command(OUTPUT ${schemas} COMMAND bench_schema ${generated} DEPENDS bench_schema VERBATIM)
    add_custom_command(
        OUTPUT ${generated}/protobuf/bench.pb.cc ${generated}/protobuf/bench.pb.h
        COMMAND ${CMAKE_COMMAND} -E make_directory ${generated}/protobuf
        COMMAND protobuf::protoc -I ${generated} --cpp_out=${generated}/protobuf ${generated}/bench.proto
        DEPENDS ${schemas} VERBATIM)
    add_custom_command(
        OUTPUT ${generated}/capnp/bench.capnp.c++ ${generated}/capnp/bench.capnp.h
        COMMAND ${CMAKE_COMMAND} -E make_directory ${generated}/capnp
        COMMAND ${CAPNP} compile -I /usr/include --src-prefix=${generated} -oc++:${generated}/capnp
                ${generated}/bench.capnp
        DEPENDS ${schemas} VERBATIM)
    foreach(schema bench all)
        add_custom_command(
            OUTPUT ${generated}/nanopb/${schema}.pb.c ${generated}/nanopb/${schema}.pb.h
            COMMAND ${CMAKE_COMMAND} -E make_directory ${generated}/nanopb
            COMMAND ${NANOPB_GENERATOR} -q -D ${generated}/nanopb -I ${generated} -f ${generated}/${schema}.options
                    ${generated}/${schema}.proto
            DEPENDS ${schemas} VERBATIM)
    endforeach()

    add_library(bench_protobuf STATIC protobuf.cpp ${generated}/protobuf/bench.pb.cc ${schemas})
    target_include_directories(bench_protobuf PRIVATE ${PROJECT_SOURCE_DIR} ${generated})
    target_link_libraries(bench_protobuf PUBLIC bench_messages protobuf::libprotobuf)

    add_library(bench_capnp STATIC capnp.cpp ${generated}/capnp/bench.capnp.c++)
    target_include_directories(bench_capnp PRIVATE ${PROJECT_SOURCE_DIR} ${generated})
    target_link_libraries(bench_capnp PUBLIC bench_messages capnp kj)

    # All types, for their size only.
    add_library(bench_nanopb_all OBJECT ${generated}/nanopb/all.pb.c)
endif()

add_library(bench_nanopb STATIC nanopb.cpp ${generated}/nanopb/bench.pb.c)
target_include_directories(bench_nanopb PRIVATE ${PROJECT_SOURCE_DIR} ${generated} ${generated}/nanopb
                           SYSTEM ${nanopb_include})
target_link_libraries(bench_nanopb PUBLIC bench_messages ${nanopb_library})
