# Shared compile settings for the library, its tests and its tools.

function(kerm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra $<$<BOOL:${KERM_WERROR}>:-Werror>
    $<$<COMPILE_LANGUAGE:CXX>:-Wno-missing-field-initializers>
    # Cutting texts to fixed buffers is deliberate throughout the library.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-format-truncation>)
endfunction()

if(KERM_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(KERM_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT KERM_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KERM_SANITIZE must be empty, address or thread")
endif()

# The Android log and call-stack interfaces: Debian's packages where present,
# else the built-in backend (stderr writer, backtrace()-based capture).
function(kerm_android_backend target)
  set(use_system OFF)
  if(NOT KERM_ANDROID_BACKEND STREQUAL "builtin")
    find_path(KERM_ANDROID_INCLUDE android/log.h PATHS /usr/include/android NO_CMAKE_FIND_ROOT_PATH)
    find_library(KERM_ANDROID_LIBLOG log PATH_SUFFIXES android NO_CMAKE_FIND_ROOT_PATH)
    find_library(KERM_ANDROID_LIBUTILS utils PATH_SUFFIXES android NO_CMAKE_FIND_ROOT_PATH)
    if(KERM_ANDROID_INCLUDE AND KERM_ANDROID_LIBLOG AND KERM_ANDROID_LIBUTILS AND NOT CMAKE_CROSSCOMPILING)
      set(use_system ON)
    elseif(KERM_ANDROID_BACKEND STREQUAL "system")
      message(FATAL_ERROR "Android liblog/libutils not found")
    endif()
  endif()
  if(use_system)
    message(STATUS "kerm_util: Android backend = system (${KERM_ANDROID_LIBLOG})")
    target_include_directories(${target} SYSTEM PRIVATE /usr/include/android)
    target_compile_definitions(${target} PRIVATE KERM_ANDROID_SYSTEM=1)
    target_link_libraries(${target} PUBLIC ${KERM_ANDROID_LIBLOG} ${KERM_ANDROID_LIBUTILS})
    # Debian keeps these libraries outside the loader's search path.
    get_filename_component(dir ${KERM_ANDROID_LIBLOG} DIRECTORY)
    set(KERM_ANDROID_LIBDIR ${dir} PARENT_SCOPE)
  else()
    message(STATUS "kerm_util: Android backend = builtin")
    target_compile_definitions(${target} PRIVATE KERM_ANDROID_SYSTEM=0)
  endif()
  set(KERM_ANDROID_IS_SYSTEM ${use_system} PARENT_SCOPE)
endfunction()
