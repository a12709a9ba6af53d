velorin_test(Properties_test LABEL files)
