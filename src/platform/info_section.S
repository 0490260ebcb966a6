/* The information dictionary, in a section of its own that info_dictionary.cpp finds by its name. */
    .section tarnwick_info, "a", @progbits
    .incbin "info.plist"
    .section .note.GNU-stack, "", @progbits
