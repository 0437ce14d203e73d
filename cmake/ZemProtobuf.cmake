# Messages by protoc, stubs and service bases by the project's own plugin.  The system's protobuf headers count as
# system headers, so that the tree's warnings do not apply to generated code.

find_package(Protobuf REQUIRED)

# zem_protobuf(name SOURCES file.proto ... [LINK other_proto_targets]): one library per family.  Files that declare
# services also get FILE.rpc.h and FILE.rpc.cc.
function(zem_protobuf name)
  cmake_parse_arguments(ARG "MESSAGES_ONLY" "" "SOURCES;LINK" ${ARGN})
  set(outputs)
  foreach(source IN LISTS ARG_SOURCES)
    get_filename_component(absolute ${source} ABSOLUTE)
    file(RELATIVE_PATH relative ${CMAKE_SOURCE_DIR} ${absolute})
    string(REGEX REPLACE "\\.proto$" "" stem ${relative})
    set(generated ${CMAKE_BINARY_DIR}/${stem}.pb.cc ${CMAKE_BINARY_DIR}/${stem}.pb.h)
    set(plugin)
    set(depends)
    file(STRINGS ${absolute} services REGEX "^service ")
    if(services AND NOT ARG_MESSAGES_ONLY AND TARGET protoc-gen-zemrpc)
      list(APPEND generated ${CMAKE_BINARY_DIR}/${stem}.rpc.h)
      set(plugin --plugin=protoc-gen-zemrpc=$<TARGET_FILE:protoc-gen-zemrpc> --zemrpc_out=${CMAKE_BINARY_DIR})
      set(depends protoc-gen-zemrpc)
    endif()
    add_custom_command(OUTPUT ${generated}
      COMMAND protobuf::protoc -I${CMAKE_SOURCE_DIR} --cpp_out=${CMAKE_BINARY_DIR} ${plugin} ${relative}
      DEPENDS ${absolute} ${depends}
      WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
      COMMENT "Generating ${relative}")
    list(APPEND outputs ${generated})
  endforeach()
  add_library(${name} STATIC ${outputs})
  target_include_directories(${name} SYSTEM PUBLIC ${CMAKE_BINARY_DIR})
  target_link_libraries(${name} PUBLIC protobuf::libprotobuf Threads::Threads ${ARG_LINK})
  target_compile_definitions(${name} PRIVATE $<TARGET_PROPERTY:zem_options,INTERFACE_COMPILE_DEFINITIONS>)
  zem_precompiled(${name} library)
endfunction()
