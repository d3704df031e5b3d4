#pragma once

class Config;

// Reads "/vendor/etc/tovrel.json" and the switch properties into `config`, builds the binder
// detector and the I/O-wait list where they are switched on, and ends with
// Config::init_second_stage(). Every failure is one log line:
//   - a file that cannot be read leaves the defaults, and the second stage still runs;
//   - content that cannot be parsed, or lacks a section, ends the reading on the spot, without the
//     second stage: what was read and built before the break stays in force.
// A value of a type that the JSON library does not convert is its business: it aborts the process.
void read_config_file(Config* config);
