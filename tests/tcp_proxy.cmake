velorin_test(tcp_proxy_test LABEL diagnostics DEPENDS tcp_proxy)
