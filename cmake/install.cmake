# What `cmake --install` puts where. The two programs go side by side: the scheduler looks for
# orv_sched_net in its own directory.
include(GNUInstallDirs)

foreach(program orv_sched orv_sched_net orv_plan)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  endif()
endforeach()

# For the administrator's machine, in a package of their own.
if(TARGET orv_console)
  install(TARGETS orv_api_program orv_console RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES docs/orv_api.1 docs/orv_console.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES packaging/completion/orv_api packaging/completion/orv_console
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(PROGRAMS examples/orv_api DESTINATION share/doc/orv-console/examples)
endif()

install(FILES docs/orv_sched.8 docs/orv_sched_net.8 docs/orv_plan.8
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES docs/orv_sched.cfg.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES docs/sched-api.txt docs/guarantees.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES examples/orv_sched.cfg DESTINATION ${CMAKE_INSTALL_DATADIR}/orv-sched)
install(FILES examples/orv_sched.cfg DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY examples/tools DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        USE_SOURCE_PERMISSIONS)
install(FILES packaging/monitoring/orv_sched.rules.yml packaging/monitoring/orv_sched.rules.test.yml
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/monitoring)
install(DIRECTORY examples/ansible DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES packaging/completion/orv_sched packaging/completion/orv_plan
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
