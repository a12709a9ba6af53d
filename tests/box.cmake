velorin_test(box_test LABEL process)
