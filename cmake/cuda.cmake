# GPU kernels. nvcc compiles the "fastalign" kernels into one fat binary (SASS
# for the listed architectures plus PTX for the oldest, which newer GPUs
# compile on load), and this same file, run as a script, turns the fat binary
# into a C++ byte array linked into `common`. Nothing CUDA is linked: the
# driver is opened at run time. Without nvcc (or with -DVB_CUDA=OFF) the
# program builds without kernels and --device reports that.
#
# Script mode (turns the fat binary into a byte array):
#   cmake -DMODE=embed -DINPUT=<file> -DOUTPUT=<file.cpp> -DSYMBOL=<name> -P cuda.cmake

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

# Compute capability 7.5 is the oldest the CUDA 13 toolchain targets. The first
# listed architecture's PTX is carried too, so that GPUs newer than the listed
# ones can run the image (scripts/gpu-check.sh builds for its GPU alone).
set(VB_CUDA_ARCHITECTURES "75;80;86;89;90" CACHE STRING
  "Compute capabilities the GPU kernels are built for; the first also as PTX")
set(VB_CUDA_GENCODE)
foreach(arch ${VB_CUDA_ARCHITECTURES})
  if(NOT VB_CUDA_GENCODE)
    list(APPEND VB_CUDA_GENCODE -gencode "arch=compute_${arch},code=[sm_${arch},compute_${arch}]")
  else()
    list(APPEND VB_CUDA_GENCODE -gencode arch=compute_${arch},code=sm_${arch})
  endif()
endforeach()

set(VB_FASTALIGN_DIR ${CMAKE_SOURCE_DIR}/pair_alignment/cuda)
set(VB_FASTALIGN_FATBIN ${CMAKE_BINARY_DIR}/kernels/fastalign.fatbin)
set(VB_FASTALIGN_CPP ${CMAKE_BINARY_DIR}/kernels/fastalign_fatbin.cpp)
set(VB_FASTALIGN_SOURCES fastalign.cu kernels.h align_thread.h cuda_emulation.h)
list(TRANSFORM VB_FASTALIGN_SOURCES PREPEND ${VB_FASTALIGN_DIR}/)

# --fmad=false: the band placement's double products must round exactly as on
# the host, where the same code is tested against the CPU aligner.
add_custom_command(
  OUTPUT ${VB_FASTALIGN_FATBIN}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/kernels
  COMMAND ${VB_NVCC} -fatbin -O3 --fmad=false -I${CMAKE_SOURCE_DIR} ${VB_CUDA_GENCODE}
          -o ${VB_FASTALIGN_FATBIN} ${VB_FASTALIGN_DIR}/fastalign.cu
  DEPENDS ${VB_FASTALIGN_SOURCES}
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
  target_include_directories(vb_fake_libcuda PRIVATE ${PROJECT_SOURCE_DIR})
  set_target_properties(vb_fake_libcuda PROPERTIES
    PREFIX "lib" OUTPUT_NAME "cuda" SUFFIX ".so.1" NO_SONAME ON
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fake_cuda)
  add_test(NAME gpu_emulated_end_to_end
    COMMAND bash ${CMAKE_SOURCE_DIR}/scripts/device-matches-cpu.sh $<TARGET_FILE:vorpa_barcoder>
            ${CMAKE_BINARY_DIR}/gpu_emulated_end_to_end auto ${CMAKE_SOURCE_DIR}/examples/reads
            --barcode_kits VB-NB24 --trim_barcodes --worker_threads 3)
  # Prepended, not set: a build carried to a machine without its packages
  # finds its libraries on LD_LIBRARY_PATH too (scripts/gpu-bundle.sh).
  set_tests_properties(gpu_emulated_end_to_end PROPERTIES TIMEOUT 300
    ENVIRONMENT_MODIFICATION LD_LIBRARY_PATH=path_list_prepend:${CMAKE_BINARY_DIR}/fake_cuda)
endif()
