# Instruction set. The renderer spends its time in scalar float code that
# gains about an eighth from fused multiply-add, AVX2 and the SSE4 rounding
# instructions, so by default the build targets x86-64-v3 (Haswell, Zen and
# later) when the machine that builds it has those instructions. Embree picks
# its own code path at run time either way. QV_PORTABLE=ON builds for any
# x86-64 processor: use it for binaries copied to other machines (a render
# farm of mixed nodes, see docs/array-jobs.md).
option(QV_PORTABLE "Build for any x86-64 processor, not the build machine's instruction set level" OFF)

if(NOT QV_PORTABLE AND CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  include(CheckCXXSourceRuns)
  set(CMAKE_REQUIRED_FLAGS "-march=x86-64-v3")
  check_cxx_source_runs([=[
    int main() {
      __builtin_cpu_init();
      return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
             __builtin_cpu_supports("bmi2") ? 0 : 1;
    }]=] QV_HOST_HAS_X86_64_V3)
  unset(CMAKE_REQUIRED_FLAGS)
  if(QV_HOST_HAS_X86_64_V3)
    add_compile_options(-march=x86-64-v3)
    message(STATUS "Quorvane: building for x86-64-v3 (QV_PORTABLE=ON for any x86-64)")
  endif()
endif()
