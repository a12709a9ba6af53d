velorin_bench(text)
# The distribution packages fmt's library for one width only; its headers serve both.
target_compile_definitions(text_bench PRIVATE FMT_HEADER_ONLY)
