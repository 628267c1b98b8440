# Puts the report page's style and script into it, with the hashes by which its policy knows them: no
# other script, and none that a store's text might bring, is run.

# The SHA-256 of a text as a content security policy writes it. base64 of its 32 bytes: 3 bytes, 6
# hex digits, are 4 characters; the last character of the filled-up 33 bytes is "=".
function(policy_hash text out)
  set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
  string(SHA256 digits "${text}")
  string(APPEND digits "00")
  set(base64 "")
  foreach(at RANGE 0 60 6)
    string(SUBSTRING "${digits}" ${at} 6 three)
    foreach(shift 18 12 6 0)
      math(EXPR index "(0x${three} >> ${shift}) & 63")
      string(SUBSTRING "${alphabet}" ${index} 1 character)
      string(APPEND base64 "${character}")
    endforeach()
  endforeach()
  string(SUBSTRING "${base64}" 0 43 base64)
  set(${out} "sha256-${base64}=" PARENT_SCOPE)
endfunction()

foreach(part html css js)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
      "${CMAKE_CURRENT_SOURCE_DIR}/report_page.${part}")
  file(READ report_page.${part} report_page_${part})
endforeach()
policy_hash("${report_page_css}" style_hash)
policy_hash("${report_page_js}" script_hash)
set(REPORT_PAGE "${report_page_html}")
string(REPLACE "{{style_hash}}" "${style_hash}" REPORT_PAGE "${REPORT_PAGE}")
string(REPLACE "{{script_hash}}" "${script_hash}" REPORT_PAGE "${REPORT_PAGE}")
string(REPLACE "{{style}}" "${report_page_css}" REPORT_PAGE "${REPORT_PAGE}")
string(REPLACE "{{script}}" "${report_page_js}" REPORT_PAGE "${REPORT_PAGE}")
configure_file(report_page_source.cpp.in "${CMAKE_CURRENT_BINARY_DIR}/report_page_source.cpp" @ONLY)
