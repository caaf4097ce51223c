# Installs the build into a folder of its own, then builds and runs the consumer against it, once
# through the CMake package and once through pkg-config.
foreach(variable BUILD SOURCE WORK CXX)
  if(NOT ${variable})
    message(FATAL_ERROR "${variable} is not given")
  endif()
endforeach()

function(must)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)
must(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

must(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/package -G Ninja -DCMAKE_CXX_COMPILER=${CXX}
  -DCMAKE_PREFIX_PATH=${prefix})
must(${CMAKE_COMMAND} --build ${WORK}/package)
must(${WORK}/package/consumer)

file(GLOB_RECURSE pc ${prefix}/*/qmutils_print.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
must(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir}
  pkg-config --define-variable=prefix=${prefix} --cflags --libs qmutils_print)
separate_arguments(flags UNIX_COMMAND "${output}")
must(${CXX} ${SOURCE}/consumer.cpp -o ${WORK}/consumer ${flags})
must(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${lib_dir} ${WORK}/consumer)
