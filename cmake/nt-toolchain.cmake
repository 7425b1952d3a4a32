# Debian's cross compiler for the NT home (i686).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)
# There is nothing that a test program could be linked against.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
