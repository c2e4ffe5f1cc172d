# Debian's hardening flags (dpkg-buildflags(1)): this program runs as root and handles secrets.
include(CheckPIESupported)
check_pie_supported()
add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security)
add_link_options(LINKER:-z,relro LINKER:-z,now)
# Fortified calls work only in an optimised build. Sanitizers have checks of their own.
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()
