velorin_test(tcp_proxy_test LABEL diagnostics DEPENDS tcp_proxy thttpd_stand_in)
velorin_test(tcp_proxy_config_test LABEL files DEPENDS tcp_proxy)
