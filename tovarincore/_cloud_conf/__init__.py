"""What the credential store consists of; only tovarincore.cloud_conf imports from here."""
