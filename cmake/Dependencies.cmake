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
# Bitmap subtitles are read by OCR: a build without it would lose them.
pkg_check_modules(TESSERACT REQUIRED IMPORTED_TARGET tesseract lept)
# Tesseract runs on OpenMP; the engine pool sets its workers' thread count
# (through omp.h and the runtime alone: nothing else is built with -fopenmp).
find_package(OpenMP REQUIRED COMPONENTS CXX)

# The command-line tools run the pipeline's many small allocations on one
# thread and free them on another; a thread-caching allocator keeps those
# frees off the producer's arena lock. Sanitizer builds keep their own.
if(QX_SANITIZE STREQUAL "" AND NOT QX_BUILD_FUZZ)
  pkg_check_modules(TCMALLOC REQUIRED IMPORTED_TARGET libtcmalloc_minimal)
endif()
