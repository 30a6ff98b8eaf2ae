# GPU kernels. nvcc compiles the "fastalign" kernels into one fat binary (SASS
# for the listed architectures plus PTX for the oldest, which newer GPUs
# compile on load), and this same file, run as a script, turns the fat binary
# into a C++ byte array linked into `common`. Nothing CUDA is linked: the
# driver is opened at run time. Without nvcc (or with -DVB_CUDA=OFF) the
# program builds without kernels and --device reports that.
#
# Script modes:
#   cmake -DMODE=embed -DINPUT=<file> -DOUTPUT=<file.cpp> -DSYMBOL=<name> -P cuda.cmake
#   cmake -DMODE=compare -DBINARY=<vorpa_barcoder> -DSOURCE=<repo> -DWORK=<dir> -DFAKE_DRIVER=<dir> -P cuda.cmake
#     runs the example reads on the CPU and with --device through the fake
#     driver in FAKE_DRIVER (kernels emulated on the CPU); the summaries must match.

if(CMAKE_SCRIPT_MODE_FILE AND MODE STREQUAL "embed")
  file(READ ${INPUT} bytes HEX)
  string(LENGTH "${bytes}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){24})" "\\1\n" bytes "${bytes}")
  file(WRITE ${OUTPUT}
    "// Generated from ${INPUT} at build time; do not edit.\n"
    "#include <cstddef>\n"
    "extern \"C\" const unsigned char ${SYMBOL}[] = {\n${bytes}\n};\n"
    "extern \"C\" const size_t ${SYMBOL}_size = ${size};\n")
  return()
endif()

if(CMAKE_SCRIPT_MODE_FILE AND MODE STREQUAL "compare")
  file(REMOVE_RECURSE ${WORK})
  set(args -i ${SOURCE}/examples/reads --barcode_kits VB-NB24 --trim_barcodes)
  execute_process(COMMAND ${BINARY} ${args} -s ${WORK}/cpu RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "CPU run failed (${rc}): ${err}")
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${FAKE_DRIVER}
                  ${BINARY} ${args} -s ${WORK}/gpu --device auto --worker_threads 3
                  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "--device run failed (${rc}): ${err}")
  endif()
  file(GLOB logs ${WORK}/gpu/*.log)
  set(used_gpu -1)
  foreach(file ${logs})
    file(READ ${file} log)
    string(FIND "${log}" "Total GPU memory allocated by FastAlignGPU is:" found)
    if(NOT found EQUAL -1)
      set(used_gpu ${found})
    endif()
  endforeach()
  if(used_gpu EQUAL -1)
    message(FATAL_ERROR "the --device run did not use the GPU aligner")
  endif()
  file(STRINGS ${WORK}/cpu/barcoding_summary.txt cpu)
  file(STRINGS ${WORK}/gpu/barcoding_summary.txt gpu)
  list(LENGTH cpu rows)
  list(SORT cpu)
  list(SORT gpu)
  if(NOT cpu STREQUAL gpu)
    message(FATAL_ERROR "summaries of the CPU and the --device run differ (see ${WORK})")
  endif()
  message(STATUS "CPU and --device summaries agree (${rows} rows)")
  return()
endif()

if(NOT VB_CUDA)
  message(STATUS "GPU kernels: disabled (VB_CUDA=OFF); --device will be refused")
  return()
endif()
find_program(VB_NVCC nvcc HINTS ENV CUDA_PATH ENV CUDA_HOME /usr/local/cuda PATH_SUFFIXES bin)
if(NOT VB_NVCC)
  message(STATUS "GPU kernels: nvcc not found, building without GPU support")
  return()
endif()
message(STATUS "GPU kernels: ${VB_NVCC}")

# Compute capability 7.5 is the oldest the CUDA 13 toolchain targets; its PTX
# is carried too so that GPUs newer than the listed ones can run the image.
set(VB_CUDA_GENCODE
  -gencode "arch=compute_75,code=[sm_75,compute_75]"
  -gencode arch=compute_80,code=sm_80
  -gencode arch=compute_86,code=sm_86
  -gencode arch=compute_89,code=sm_89
  -gencode arch=compute_90,code=sm_90)

set(VB_FASTALIGN_DIR ${CMAKE_SOURCE_DIR}/common/cuda/fastalign)
set(VB_FASTALIGN_FATBIN ${CMAKE_BINARY_DIR}/kernels/fastalign.fatbin)
set(VB_FASTALIGN_CPP ${CMAKE_BINARY_DIR}/kernels/fastalign_fatbin.cpp)
file(GLOB VB_FASTALIGN_DEPENDS CONFIGURE_DEPENDS ${VB_FASTALIGN_DIR}/*.h ${VB_FASTALIGN_DIR}/*.cu)

# --fmad=false: the band placement's double products must round exactly as on
# the host, where the same code is tested against the CPU aligner.
add_custom_command(
  OUTPUT ${VB_FASTALIGN_FATBIN}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/kernels
  COMMAND ${VB_NVCC} -fatbin -O3 --fmad=false -I${CMAKE_SOURCE_DIR} ${VB_CUDA_GENCODE}
          -o ${VB_FASTALIGN_FATBIN} ${VB_FASTALIGN_DIR}/fastalign.cu
  DEPENDS ${VB_FASTALIGN_DEPENDS} ${CMAKE_SOURCE_DIR}/common/cuda/cuda_emulation.h
  COMMENT "nvcc: building fastalign.fatbin"
  VERBATIM)
add_custom_command(
  OUTPUT ${VB_FASTALIGN_CPP}
  COMMAND ${CMAKE_COMMAND} -DMODE=embed -DINPUT=${VB_FASTALIGN_FATBIN} -DOUTPUT=${VB_FASTALIGN_CPP}
          -DSYMBOL=vb_fastalign_fatbin -P ${CMAKE_SOURCE_DIR}/cmake/cuda.cmake
  DEPENDS ${VB_FASTALIGN_FATBIN} ${CMAKE_SOURCE_DIR}/cmake/cuda.cmake
  COMMENT "Embedding fastalign.fatbin"
  VERBATIM)

# Custom command outputs only attach to targets of their own directory, and
# `common` lives in common/: a target here produces the file for it.
add_custom_target(vb_kernel_images DEPENDS ${VB_FASTALIGN_CPP})
add_dependencies(common vb_kernel_images)
target_sources(common PRIVATE ${VB_FASTALIGN_CPP})
set_source_files_properties(${CMAKE_SOURCE_DIR}/common/kernel_images.cpp TARGET_DIRECTORY common
  PROPERTIES COMPILE_DEFINITIONS VB_HAVE_FASTALIGN_FATBIN)

# A stand-in libcuda.so.1 whose launches run the kernels above on the CPU, and
# an end-to-end check that --device through it classifies exactly like the CPU.
# The GPU path is thus exercised on machines without a GPU; what it cannot show
# is that nvcc's build of the kernels behaves like the host build.
if(VB_BUILD_TESTS)
  add_library(vb_fake_libcuda SHARED ${CMAKE_SOURCE_DIR}/tests/fake_cuda/fake_libcuda.cpp)
  set_target_properties(vb_fake_libcuda PROPERTIES
    PREFIX "lib" OUTPUT_NAME "cuda" SUFFIX ".so.1" NO_SONAME ON
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fake_cuda)
  add_test(NAME gpu_emulated_end_to_end
    COMMAND ${CMAKE_COMMAND} -DMODE=compare -DBINARY=$<TARGET_FILE:vorpa_barcoder> -DSOURCE=${CMAKE_SOURCE_DIR}
            -DWORK=${CMAKE_BINARY_DIR}/gpu_emulated_end_to_end -DFAKE_DRIVER=${CMAKE_BINARY_DIR}/fake_cuda
            -P ${CMAKE_SOURCE_DIR}/cmake/cuda.cmake)
  set_tests_properties(gpu_emulated_end_to_end PROPERTIES TIMEOUT 300)
endif()
