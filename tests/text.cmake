velorin_test(String_test LABEL text)
