velorin_test(ad_logview_test LABEL diagnostics DEPENDS ad_logview)
velorin_test(completion_test LABEL diagnostics DEPENDS ad_crash ad_debugctl ad_logd ad_logview)
