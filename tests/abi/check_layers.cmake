# Checks that the library's layers call only downward, from the symbols each object file of the
# library needs (nm -u): libusb is reached only from Source/transport; the text layer and the
# families reach the wire only through the message layer and the board layer, never the device list
# or the raw transfers; nothing below the text layer calls up into it; the message layer calls
# neither the board layer nor the device list; the device list does not call the raw transfers (the
# raw layer looks handles up in the list, never the other way round).
#
#   cmake -DNM=nm -DOBJECTS="a.o;b.o;..." -P check_layers.cmake

# <layer>: regular expressions of the (demangled) symbols an object of that layer must not need.
set(libusb "^usb_(init|find_busses|find_devices|get_busses|busses|open|close|reset|get_string[a-z_]*|claim_interface|release_interface|set_[a-z]+|clear_halt|resetep|bulk_[a-z]+|interrupt_[a-z]+|control_msg|get_descriptor[a-z_]*|device|get_driver_np|detach_kernel_driver_np|strerror)$")
set(raw "^LibUSB")
set(list_ops "^(list_[a-z_]+|inti_list|scan_dev|open_dev|check_dev|close_dev|is_open_dev|read_buses|select_board|current_board|close_unclaimable)\\(")
set(board_ops "^(KD_EnumBoard|KD_OpenBoard|KD_CloseBoard|DeviceIsConnected)$|^(DeviceIsConnected|ensure_enumerated|open_board_locked|board_is_open)\\(")
set(messages_ops "^(USB_[A-Za-z]+|Request::)")
set(family_kit "^corvel::")
set(text_ops "^(corvel::text::|KDIF_)")

set(forbidden_text "${libusb}" "${raw}" "${list_ops}")
set(forbidden_families "${libusb}" "${raw}" "${list_ops}" "${text_ops}")
set(forbidden_board "${libusb}" "${raw}" "${family_kit}")
set(forbidden_messages "${libusb}" "${list_ops}" "${board_ops}" "${family_kit}")
set(forbidden_transport "${messages_ops}" "${board_ops}" "${family_kit}")
# Within the transport: the device list must not call the raw layer.
set(forbidden_usb_list "${raw}")

set(failures "")
foreach(object ${OBJECTS})
  string(REGEX MATCH "/(transport|messages|board|families|text)/([A-Za-z_]+)\\.cpp\\.o$" hit "${object}")
  if(NOT hit)
    continue()
  endif()
  set(layer ${CMAKE_MATCH_1})
  set(unit ${CMAKE_MATCH_2})
  set(rules ${forbidden_${layer}})
  if(unit STREQUAL "usb_list")
    list(APPEND rules ${forbidden_usb_list})
  endif()
  execute_process(COMMAND ${NM} -u -C ${object} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${object}")
  endif()
  string(REPLACE "\n" ";" lines "${out}")
  foreach(line ${lines})
    string(REGEX REPLACE "^ *U +" "" symbol "${line}")
    foreach(rule ${rules})
      if(symbol MATCHES "${rule}")
        string(APPEND failures "  ${layer}/${unit} needs ${symbol}\n")
      endif()
    endforeach()
  endforeach()
endforeach()

if(failures)
  message(FATAL_ERROR "Calls that skip or climb a layer:\n${failures}")
endif()
message(STATUS "layers call only downward")
