# Sanitizer and hardened builds, one option each (the presets set them):
#
#   KESTRIX_SANITIZE  AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer (any compiler;
#                     the `asan` preset builds it with GCC)
#   KESTRIX_UBSAN     UndefinedBehaviorSanitizer alone, with the double-to-integer overflow check
#                     that GCC's -fsanitize=undefined leaves out (the `ubsan` preset, clang)
#   KESTRIX_FUZZ      libFuzzer coverage with AddressSanitizer and UndefinedBehaviorSanitizer for
#                     the fuzz targets (the `fuzz` preset, clang)
#   KESTRIX_HARDEN    a release build with _FORTIFY_SOURCE=2, stack protectors and full RELRO
#
# Every sanitizer stops at its first report, so a finding fails the test that caused it.
set(kestrix_ub_checks undefined,float-cast-overflow)

if(KESTRIX_SANITIZE)
  add_compile_options(-fsanitize=address,${kestrix_ub_checks} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,${kestrix_ub_checks})
endif()

if(KESTRIX_UBSAN)
  add_compile_options(-fsanitize=${kestrix_ub_checks} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${kestrix_ub_checks})
endif()

if(KESTRIX_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,${kestrix_ub_checks}
                      -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,${kestrix_ub_checks})
endif()

# Hardening is on by default, so what the package ships is built as Debian builds its own; not
# with the sanitizers and the fuzz targets, which bring their own checks, nor for Windows (PE
# files have no such relocations; MinGW has no fortified C library).
if(KESTRIX_HARDEN AND NOT KESTRIX_SANITIZE AND NOT KESTRIX_UBSAN AND NOT KESTRIX_FUZZ
   AND NOT WIN32)
  # _FORTIFY_SOURCE needs optimisation (not in Debug builds); the `hardened` preset builds Release
  # at -O2 (GCC 12 at -O3 warns falsely inside libstdc++). -U first, so that a distribution
  # default does not clash. Debian's compilers make position-independent executables already.
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                      $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2> -fstack-protector-strong
                      -fstack-clash-protection -Wformat -Werror=format-security)
  add_link_options(-Wl,-z,relro,-z,now)
endif()

