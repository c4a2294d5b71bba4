# The resources of QBSMTP.dll, built from the message catalogue
# (src/frame/message_catalogue.cpp), so the texts have one source:
# 1. catalogue_resources, compiled for the build machine with its own
#    compiler, writes the events as a message-compiler file, the resource
#    script with the string table, and a listing of what the DLL must hold;
# 2. windmc turns the events into the message table (8-bit texts);
# 3. the resource script, compiled with windres, goes into the DLL.
# Sets QBSMTP_RESOURCE_SCRIPT and QBSMTP_RESOURCE_LISTING.

if(NOT QBSMTP_WINDMC)
  find_program(QBSMTP_WINDMC NAMES i686-w64-mingw32-windmc windmc REQUIRED)
endif()
find_program(QBSMTP_HOST_CXX NAMES c++ g++ clang++ NO_CMAKE_FIND_ROOT_PATH REQUIRED)

set(resource_dir ${PROJECT_BINARY_DIR}/resources)
set(generator ${resource_dir}/catalogue_resources)
set(generator_sources
  ${PROJECT_SOURCE_DIR}/tools/win32/catalogue_resources.cpp
  ${PROJECT_SOURCE_DIR}/src/frame/message_catalogue.cpp)
set(QBSMTP_RESOURCE_SCRIPT ${resource_dir}/QBSMTP.rc)
set(QBSMTP_RESOURCE_LISTING ${resource_dir}/catalogue_listing.txt)

set(generator_warnings -Wall -Wextra)
if(QBSMTP_WERROR)
  list(APPEND generator_warnings -Werror)
endif()
add_custom_command(OUTPUT ${generator}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${resource_dir}
  COMMAND ${QBSMTP_HOST_CXX} -std=c++20 ${generator_warnings}
    -I${PROJECT_SOURCE_DIR}/src -o ${generator} ${generator_sources}
  DEPENDS ${generator_sources}
    ${PROJECT_SOURCE_DIR}/src/frame/message_catalogue.h
    ${PROJECT_SOURCE_DIR}/src/platform/os.h
    ${PROJECT_SOURCE_DIR}/src/platform/os_types.h
  COMMENT "Building the resource generator for the build machine"
  VERBATIM)

add_custom_command(
  OUTPUT ${resource_dir}/QBSMTP_messages.mc ${QBSMTP_RESOURCE_SCRIPT} ${QBSMTP_RESOURCE_LISTING}
  COMMAND ${generator} QBSMTP_messages.mc QBSMTP.rc catalogue_listing.txt QBSMTP_messages.rc
  WORKING_DIRECTORY ${resource_dir}
  DEPENDS ${generator}
  COMMENT "Writing the resources from the message catalogue"
  VERBATIM)

# -a: the .mc is 8-bit; -A: the message table keeps 8-bit texts.
add_custom_command(
  OUTPUT ${resource_dir}/QBSMTP_messages.rc ${resource_dir}/MSG00410.bin
  COMMAND ${QBSMTP_WINDMC} -a -A -C 1252 -O 1252 -r ${resource_dir} -h ${resource_dir}
    QBSMTP_messages.mc
  WORKING_DIRECTORY ${resource_dir}
  DEPENDS ${resource_dir}/QBSMTP_messages.mc
  COMMENT "Compiling the message table"
  VERBATIM)

set_source_files_properties(${QBSMTP_RESOURCE_SCRIPT} PROPERTIES
  GENERATED TRUE
  OBJECT_DEPENDS "${resource_dir}/QBSMTP_messages.rc;${resource_dir}/MSG00410.bin"
  INCLUDE_DIRECTORIES ${resource_dir}
  COMPILE_OPTIONS "--codepage=1252")
