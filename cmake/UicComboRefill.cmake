# SPDX-License-Identifier: LGPL-2.1-or-later
# Turns uic's combo box items into the clear-and-refill form of the dialog's
# layout class: setupUi creates the combo boxes empty, and retranslateUi clears
# each one and inserts its translated items in order (so a retranslation
# rebuilds the lists instead of only renaming their entries).
#
# cmake -DIN=<uic output> -DOUT=<header> -P UicComboRefill.cmake

file(READ "${IN}" text)

string(REGEX MATCHALL "[A-Za-z_0-9]+->addItem\\(QString\\(\\)\\)" adds "${text}")
set(combos "")
foreach(add IN LISTS adds)
  string(REGEX REPLACE "->addItem.*" "" name "${add}")
  list(APPEND combos "${name}")
endforeach()
list(REMOVE_DUPLICATES combos)

# setupUi: the combo boxes start empty.
string(REGEX REPLACE "        [A-Za-z_0-9]+->addItem\\(QString\\(\\)\\);\n" "" text "${text}")

# retranslateUi: one clear() and one insertItems() per combo box.
foreach(name IN LISTS combos)
  set(items "")
  set(count 0)
  foreach(i RANGE 0 255)
    if(NOT text MATCHES "        ${name}->setItemText\\(${i}, ([^\n]*)\\);\n")
      break()
    endif()
    string(APPEND items "         << ${CMAKE_MATCH_1}\n")
    set(line "        ${name}->setItemText(${i}, ${CMAKE_MATCH_1});\n")
    if(i EQUAL 0)
      string(REPLACE "${line}" "@REFILL_${name}@" text "${text}")
    else()
      string(REPLACE "${line}" "" text "${text}")
    endif()
    math(EXPR count "${i} + 1")
  endforeach()
  if(count EQUAL 0)
    message(FATAL_ERROR "UicComboRefill: no items found for ${name}")
  endif()
  string(REPLACE "@REFILL_${name}@"
    "        ${name}->clear();\n        ${name}->insertItems(0, QStringList()\n${items}        );\n"
    text "${text}")
endforeach()

file(WRITE "${OUT}" "${text}")
