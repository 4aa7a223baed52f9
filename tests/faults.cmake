# The fault suite: a chassis of a few cards, one fault played on it (the fault table of
# tools/vek_chassis/; vek_chassis --fault help lists them), each case ending with the
# simulator's exact check of db 28. The shell-abuse case switches to another user with
# setpriv, so it runs as root.
function(fault_test fault)
  add_test(NAME fault-${fault} COMMAND ${CMAKE_SOURCE_DIR}/scripts/chassis --seed 1
                                       --fault ${fault} ${ARGN})
  set_tests_properties(fault-${fault} PROPERTIES ENVIRONMENT "VEK_CAP_BUILD=${CMAKE_BINARY_DIR}"
                                                 TIMEOUT 120 LABELS "integration;fault")
endfunction()

fault_test(global-restart -n 2 --entries 1000)
fault_test(kill-daemon -n 2 --entries 1000)
fault_test(client-kill -n 4 --entries 50)
fault_test(stop-global -n 4 --entries 50)
fault_test(pause-global -n 4 --entries 50)
fault_test(maxmemory -n 4 --entries 20)
fault_test(read-only-user -n 4 --entries 20)
fault_test(malformed -n 2 --entries 10)
fault_test(shell-abuse -n 2 --entries 10)
