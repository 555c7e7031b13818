find_package(fmt REQUIRED)
find_package(Boost REQUIRED)
target_link_libraries(bench_bytebuf PRIVATE fmt::fmt Boost::headers)
