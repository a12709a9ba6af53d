# The 32-bit x86 target, built by a 64-bit compiler with its multilib.
# Doubles are computed in SSE registers, so that both targets round alike.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_FLAGS_INIT "-m32 -msse2 -mfpmath=sse")
set(CMAKE_CXX_FLAGS_INIT "-m32 -msse2 -mfpmath=sse")
