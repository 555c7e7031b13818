find_package(absl REQUIRED)
target_link_libraries(bench_collections PRIVATE absl::flat_hash_map absl::synchronization)
