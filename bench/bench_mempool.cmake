# Peers of the memory pool: jemalloc through its explicit API on an arena of
# its own, mimalloc through a heap of its own. Both replace malloc in this
# program (mimalloc __libc_malloc too), so the bench takes glibc's entry
# points from libc.so.6 itself.
find_package(PkgConfig REQUIRED)
pkg_check_modules(JEMALLOC REQUIRED IMPORTED_TARGET jemalloc)
find_package(mimalloc REQUIRED)
target_link_libraries(bench_mempool PRIVATE PkgConfig::JEMALLOC mimalloc)
find_program(KERM_GNUPLOT gnuplot)
if(KERM_GNUPLOT)
  target_compile_definitions(bench_mempool PRIVATE KERM_BENCH_GNUPLOT="${KERM_GNUPLOT}")
endif()
