# CLI11 and nlohmann_json are header-only: a cross-build takes the build
# machine's headers. Their package files would put all of /usr/include on
# the include path, ahead of the cross compiler's C library; so the
# targets name a directory that holds only their two header trees.
set(host_headers ${PROJECT_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${host_headers})
foreach(tree CLI nlohmann)
  file(CREATE_LINK /usr/include/${tree} ${host_headers}/${tree} SYMBOLIC)
endforeach()
add_library(CLI11::CLI11 INTERFACE IMPORTED GLOBAL)
add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED GLOBAL)
set_target_properties(CLI11::CLI11 nlohmann_json::nlohmann_json PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${host_headers})
