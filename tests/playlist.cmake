velorin_test(xmlRewrite_test LABEL playlist SOURCES support/scripted_reads.cc
  DEPENDS example_playlist_links)

# What the example says about each playlist, and the playlists that it writes.

# What the example says about each playlist, and the playlists that it writes.
foreach(list audio_news.wax concert.smil films.asx lessons.smi old_radio.wvx unfinished.smil)
  add_test(NAME examples.playlist_links.${list}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/playlist_links.sh $<TARGET_FILE:example_playlist_links>
      ${PROJECT_SOURCE_DIR}/examples/playlists ${list}
      ${CMAKE_CURRENT_SOURCE_DIR}/expected/playlist_links.${list}.txt)
  set_tests_properties(examples.playlist_links.${list} PROPERTIES LABELS playlist TIMEOUT 60)
endforeach()
