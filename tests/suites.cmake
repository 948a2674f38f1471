# Every suite and every check of the tree as a test of ctest, for the preset linux: ctest --preset linux runs them all,
# -L LABEL those of a kind, -R WORD those with that word in their names. What is run under sanitizers or under Wine is
# taken from where the other presets build it. Each suite writes what its tests came to, in the form of JUnit, to
# build/test-logs, from which scripts/count-results counts.
#
# Labels: unit, port, endtoend, wine, sanitized, machine (whole virtual ones), fuzz (saved inputs), packages, tree; and
# long, for what scripts/test leaves out unless it is asked for (docs/development/long-tests.md).

set(logs ${CMAKE_SOURCE_DIR}/build/test-logs)
file(MAKE_DIRECTORY ${logs}/figures)
set(other ${CMAKE_SOURCE_DIR}/build)
set(python /usr/bin/python3) # Debian's own, which is the one that Debian's Python packages are for
# Images behind the first keep their handles until the process ends, so leaks are no finding there.
set(sanitizers ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=0)

# The file of a suite's results, without .xml.
function(results name file)
  string(REGEX REPLACE "[ ,]+" "-" plain "${name}")
  set(${file} ${logs}/${plain} PARENT_SCOPE)
endfunction()

# A test of ctest, from the root of the tree. COST: about how many seconds it takes on one core, so that the long ones
# begin first.
function(suite name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "COST" "LABELS;COMMAND;ENVIRONMENT;LOCK")
  add_test(NAME ${name} COMMAND ${arg_COMMAND} WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
  set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}" COST "${arg_COST}" TIMEOUT 3600
                       ENVIRONMENT "${arg_ENVIRONMENT}" RESOURCE_LOCK "${arg_LOCK}")
endfunction()

# A GoogleTest program.
function(program_suite name) # with COMMAND last
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "COMMAND")
  results(${name} file)
  suite(${name} ${arg_UNPARSED_ARGUMENTS} COMMAND ${arg_COMMAND} --gtest_brief=1 --gtest_output=xml:${file}.xml)
endfunction()

# A file of end-to-end tests, or a folder of them.
function(endtoend_suite name tests)
  results(${name} file)
  suite(${name} ${ARGN} COMMAND ${python} -m pytest tests/endtoend/${tests} --junitxml=${file}.xml)
endfunction()

# ---- What runs on this system, plainly and under sanitizers ----

program_suite("subsystems" LABELS unit COST 140 ENVIRONMENT KESTRIX_FIGURES=${logs}/figures COMMAND kestrix_tests)
program_suite("port" LABELS port COST 40 COMMAND port_tests)
program_suite("companions over failing calls" LABELS unit COST 40 COMMAND companion_faults)
program_suite("subsystems, sanitized" LABELS unit sanitized COST 300 ENVIRONMENT ${sanitizers}
              COMMAND ${other}/linux-asan/tests/kestrix_tests)
program_suite("port, sanitized" LABELS port sanitized COST 110 ENVIRONMENT ${sanitizers}
              COMMAND ${other}/linux-asan/tests/port_tests)
program_suite("companions over failing calls, sanitized" LABELS unit sanitized COST 260 ENVIRONMENT ${sanitizers}
              COMMAND ${other}/linux-asan/tests/companion_faults)
program_suite("companions, sanitized" LABELS unit sanitized COST 20 ENVIRONMENT ${sanitizers}
              COMMAND ${other}/linux-asan/tests/companion_tests)

# Without what is about cost, time, pages and other programs: there the plain run sees all that there is to see.
set(plainAlone test_architecture test_chain_cost test_completion test_keep_faults test_keep_page test_keep_places
               test_keep_year test_large_disk test_magic test_manual_pages test_month test_page_links test_scripts
               test_version test_vm test_vm_ends test_vm_freezing test_vm_migration test_vm_page test_vm_proof)
file(GLOB files CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}/endtoend endtoend/test_*.py)
foreach(tests IN LISTS files)
  cmake_path(GET tests STEM stem)
  string(REPLACE "test_" "" name ${stem})
  set(cost 20)
  if(stem MATCHES "keep_year|image_differential|random_chains|kill|keep_faults")
    set(cost 100)
  endif()
  endtoend_suite("endtoend ${name}" ${tests} LABELS endtoend COST ${cost}
                 ENVIRONMENT KESTRIX=${CMAKE_BINARY_DIR}/kestrix)
  if(NOT stem IN_LIST plainAlone)
    math(EXPR cost "${cost} * 3 / 2")
    endtoend_suite("endtoend ${name}, sanitized" ${tests} LABELS endtoend sanitized COST ${cost}
                   ENVIRONMENT KESTRIX=${other}/linux-asan/kestrix ${sanitizers})
  endif()
endforeach()
endtoend_suite("endtoend browsing" browse LABELS machine COST 700)
endtoend_suite("endtoend whole guests" vm LABELS machine long COST 600)

foreach(target IN LISTS fuzzTargets)
  suite("fuzz inputs, ${target}" LABELS fuzz sanitized COST 10 ENVIRONMENT ${sanitizers}
        COMMAND ${other}/linux-asan/tests/fuzz_${target} tests/fuzz/seeds/${target} tests/fuzz/crashes/${target}
                ${other}/linux-asan/vector-seeds/${target})
  set_tests_properties("fuzz inputs, ${target}" PROPERTIES FIXTURES_REQUIRED vector_seeds)
endforeach()
suite("images with one defect become fuzz inputs" LABELS fuzz sanitized COST 10
      COMMAND ${python} tests/fuzz/make_seeds.py --vectors ${other}/linux-asan/vector-seeds)
set_tests_properties("images with one defect become fuzz inputs" PROPERTIES FIXTURES_SETUP vector_seeds)
suite("kestrix and kestrix-image say the same of damaged chains" LABELS fuzz sanitized COST 60
      ENVIRONMENT ${sanitizers} COMMAND scripts/damage 3000 1)

# ---- Under Wine: what runs there at one time has each a Windows machine of its own ----

foreach(part IN ITEMS subsystems:kestrix_tests:150 port:port_tests:60 companions:companion_tests:30)
  string(REPLACE ":" ";" part ${part})
  list(GET part 0 name)
  list(GET part 1 program)
  list(GET part 2 cost)
  results("${name} under Wine" file)
  # A path with a leading slash is an option's to GoogleTest for Windows.
  cmake_path(RELATIVE_PATH file BASE_DIRECTORY ${CMAKE_SOURCE_DIR})
  suite("${name} under Wine" LABELS unit wine COST ${cost} LOCK wine-suites
        ENVIRONMENT KESTRIX_WINE=${other}/wine-suites
        COMMAND env -u LANG -u LC_ALL scripts/wine ${other}/windows/tests/${program}.exe --gtest_brief=1
                --gtest_output=xml:${file}.xml)
endforeach()
endtoend_suite("endtoend under Wine" windows LABELS endtoend wine COST 340
               ENVIRONMENT KESTRIX=${CMAKE_BINARY_DIR}/kestrix)
suite("the same subsystem tests pass under Wine as on Linux" LABELS unit wine COST 1
      COMMAND scripts/count-results --same ${logs}/subsystems.xml ${logs}/subsystems-under-Wine.xml)
set_tests_properties("the same subsystem tests pass under Wine as on Linux" PROPERTIES
                     DEPENDS "subsystems;subsystems under Wine")

# ---- The program's cost, the packages, the tree ----

suite("the page's faults are those of this tree" LABELS unit COST 1
      COMMAND scripts/figures --same-faults ${logs}/figures)
set_tests_properties("the page's faults are those of this tree" PROPERTIES DEPENDS subsystems)
suite("each command passes valgrind" LABELS unit COST 130 COMMAND scripts/check-valgrind ${CMAKE_BINARY_DIR}/kestrix)
suite("little but the digest costs instructions" LABELS unit COST 30
      COMMAND scripts/check-instructions ${CMAKE_BINARY_DIR}/kestrix)
suite("the benchmark works" LABELS unit COST 50 COMMAND scripts/bench --quick)
suite("the packages come out the same twice and work" LABELS packages COST 300
      ENVIRONMENT KESTRIX_WINE=${other}/wine-packages COMMAND scripts/check-package)

suite("clang and clang-tidy find nothing" LABELS tree COST 600 COMMAND scripts/check-tidy)
suite("C++ is formatted" LABELS tree COST 10 COMMAND bash -c
      "find src platform companions packaging tests bench -name '*.cpp' -o -name '*.h' | \
       xargs clang-format --dry-run -Werror")
suite("GCC for Windows warns of nothing" LABELS tree COST 80 COMMAND scripts/check-warnings)
suite("cppcheck finds nothing" LABELS tree COST 15 COMMAND cppcheck --quiet
      --enable=warning,style,performance,portability --std=c++17 --error-exitcode=1 --inconclusive
      --suppressions-list=.cppcheck -I src -I platform -I platform/linux/include -I platform/linux -I companions
      src platform/linux companions packaging)
suite("Python is sound" LABELS tree COST 10 COMMAND ${python} -m flake8 tests bench companions/kestrix-vm
      companions/kestrix-vm/kestrix-vm scripts/count-results scripts/figures scripts/figures-vm scripts/messages
      scripts/mutate scripts/years)
suite("shell scripts are sound" LABELS tree COST 10 COMMAND scripts/check-scripts)
suite("every test file is in the build" LABELS tree COST 5 COMMAND scripts/check-test-files)
suite("manual pages are sound" LABELS tree COST 5 COMMAND scripts/check-manuals)
suite("the drawing is made of its source" LABELS tree COST 1 COMMAND scripts/draw --check)
suite("the page of figures says what its tables do" LABELS tree COST 1 COMMAND scripts/figures --check)
suite("the page of virtual machines has its table" LABELS tree COST 1 COMMAND scripts/figures-vm --check)
suite("the port holds the calls of the program and no others" LABELS tree COST 1
      COMMAND scripts/check-port ${CMAKE_BINARY_DIR})
suite("the simulator stands in for every call, windows" LABELS tree wine COST 1
      COMMAND ctest --test-dir ${other}/windows -R replaced_calls --no-tests=error)
