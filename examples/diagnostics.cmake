velorin_program(example_log_lines log_lines.c)
