# 32-bit x86 target. SSE2 arithmetic keeps float and double exactly IEEE single and
# double; the kernel here cannot run 32-bit programs, so tests run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32 -msse2 -mfpmath=sse")
set(CMAKE_CXX_FLAGS_INIT "-m32 -msse2 -mfpmath=sse")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-i386;-L;/)
# Debian's name for the target, for the library folder of an install to /usr.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
