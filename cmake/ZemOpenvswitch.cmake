# The Open vSwitch library as the target zem_openvswitch; built once per machine by build-openvswitch.sh.

execute_process(COMMAND ${CMAKE_SOURCE_DIR}/cmake/build-openvswitch.sh
  OUTPUT_VARIABLE zem_ovs OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
add_library(zem_openvswitch INTERFACE)
target_include_directories(zem_openvswitch SYSTEM INTERFACE ${zem_ovs}/include ${zem_ovs}/include/lib)
target_link_libraries(zem_openvswitch INTERFACE ${zem_ovs}/libopenvswitch.a m dl Threads::Threads)
