velorin_test(elc_test LABEL files)
