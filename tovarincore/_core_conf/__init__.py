"""What the configuration consists of; only tovarincore.core_conf imports from here."""
