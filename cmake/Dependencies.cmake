# Every dependency is a Debian 12 package (scripts/setup.sh installs them).
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET
  libavformat libavcodec libavutil libswresample libswscale)
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-uc icu-i18n)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(MATROSKA REQUIRED IMPORTED_TARGET libebml libmatroska)
find_package(pugixml REQUIRED)
find_library(QX_CLD2_LIBRARY cld2 REQUIRED)
find_package(SQLite3 REQUIRED)
pkg_check_modules(TESSERACT IMPORTED_TARGET tesseract lept)

# The command-line tools run the pipeline's many small allocations on one
# thread and free them on another; a thread-caching allocator keeps those
# frees off the producer's arena lock. Sanitizer builds keep their own.
if(QX_SANITIZE STREQUAL "" AND NOT QX_BUILD_FUZZ)
  pkg_check_modules(TCMALLOC REQUIRED IMPORTED_TARGET libtcmalloc_minimal)
endif()
