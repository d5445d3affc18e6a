# Helpers shared by the folders' CMakeLists.

# zov_static_library(NAME DIRS dir... [EXCLUDE file...] [DEPS lib...] [PRIVATE_DEPS lib...])
# A static library of every .c/.cpp file directly inside the given folders.
# Folders glob their sources so that adding a file needs no build edit.
# DEPS are part of the library's interface (their headers show in its own);
# PRIVATE_DEPS are used inside it only.
function(zov_static_library name)
  cmake_parse_arguments(ZL "" "" "DIRS;DEPS;PRIVATE_DEPS;EXCLUDE" ${ARGN})
  set(srcs)
  foreach(d ${ZL_DIRS})
    file(GLOB s CONFIGURE_DEPENDS ${d}/*.cpp ${d}/*.c)
    list(APPEND srcs ${s})
  endforeach()
  if(ZL_EXCLUDE)
    list(REMOVE_ITEM srcs ${ZL_EXCLUDE})
  endif()
  add_library(${name} STATIC ${srcs})
  if(ZL_DEPS)
    target_link_libraries(${name} PUBLIC ${ZL_DEPS})
  endif()
  if(ZL_PRIVATE_DEPS)
    target_link_libraries(${name} PRIVATE ${ZL_PRIVATE_DEPS})
  endif()
endfunction()

# zov_expose(TARGET path...)
# The headers a library offers, named by their path from the top of the tree
# (a file, or a whole folder). Each is linked into an include folder of the
# library's own under the build tree, and that folder alone is the library's
# public include path. So a file can include only what its own library and
# the libraries it links offer: an include that runs up the layers does not
# build.
function(zov_expose target)
  set(root ${CMAKE_BINARY_DIR}/include/${target})
  foreach(p ${ARGN})
    if(NOT EXISTS ${CMAKE_SOURCE_DIR}/${p})
      message(FATAL_ERROR "zov_expose(${target}): ${p} does not exist")
    endif()
    get_filename_component(parent ${root}/${p} DIRECTORY)
    file(MAKE_DIRECTORY ${parent})
    if(NOT IS_SYMLINK ${root}/${p})
      file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${p} ${root}/${p} SYMBOLIC)
    endif()
  endforeach()
  target_include_directories(${target} PUBLIC ${root})
endfunction()

# zov_layer_check(TARGET OWN_HEADER FOREIGN_HEADER)
# Two tests of the include path TARGET's own files see: its own header
# compiles, and a header of a layer above it does not.
function(zov_layer_check target own foreign)
  set(flags "-I$<JOIN:$<TARGET_PROPERTY:${target},INCLUDE_DIRECTORIES>,;-I>")
  add_test(NAME layering_${target}_own
           COMMAND ${CMAKE_CXX_COMPILER} -std=c++17 -fsyntax-only "${flags}"
                   -include ${own} -x c++ /dev/null
           COMMAND_EXPAND_LISTS)
  add_test(NAME layering_${target}_refuses_up
           COMMAND ${CMAKE_CXX_COMPILER} -std=c++17 -fsyntax-only "${flags}"
                   -include ${foreign} -x c++ /dev/null
           COMMAND_EXPAND_LISTS)
  set_tests_properties(layering_${target}_refuses_up PROPERTIES WILL_FAIL TRUE)
endfunction()

# zov_test_binary(NAME DIR [DEPS lib...])
# One GoogleTest binary per test folder, registered with CTest under its name.
# Tests stand above every layer and include from the top of the tree; the
# helpers in tests/support come with every binary.
# SHARDS n: the binary's tests are split into n CTest entries, name_0 to
# name_<n-1>, by Google Test's sharding, so that a long suite runs side by side
# and each entry stays within its time limit.
function(zov_test_binary name dir)
  cmake_parse_arguments(ZT "" "SHARDS" "DEPS" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${dir}/*.cpp)
  if(NOT srcs)
    return()
  endif()
  add_executable(${name} ${srcs})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ZT_DEPS} zov_test_support GTest::gtest GTest::gtest_main Threads::Threads)
  set(env "ZOV_BUILD_DIR=${CMAKE_BINARY_DIR};ZOV_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
  if(NOT ZT_SHARDS)
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES TIMEOUT 600 ENVIRONMENT "${env}")
    return()
  endif()
  math(EXPR last "${ZT_SHARDS} - 1")
  foreach(i RANGE ${last})
    add_test(NAME ${name}_${i} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name}_${i} PROPERTIES TIMEOUT 600
      ENVIRONMENT "${env};GTEST_TOTAL_SHARDS=${ZT_SHARDS};GTEST_SHARD_INDEX=${i}")
  endforeach()
endfunction()
