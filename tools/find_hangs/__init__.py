"""How tools/find-hangs reads logs, in the order in which a line passes through:

inputs    archives, encodings, blocks of lines
reader    where boots begin in one text
prefixes  time and writer of a line
contents  what it tells
boot      what the lines of one boot tell together; hang: what it collects
collect   copies counted once, and the logs of one boot joined
output    table, JSON Lines, picture
"""
