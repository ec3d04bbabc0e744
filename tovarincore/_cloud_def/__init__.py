"""The records of the domain, one file per subject; ``tovarincore.cloud_def`` publishes them."""
