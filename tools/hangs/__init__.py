"""How tools/find-hangs reads logs, in the order in which a line passes through:

inputs    archives, encodings, blocks of lines
prefixes  time and writer of a line
contents  what it tells
boot      what one boot's lines tell together: hangs
collect   boots and files apart, and what belongs together joined
output    table, JSON Lines, plot
"""
