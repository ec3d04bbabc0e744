"""Work on a Kubernetes cluster, one file per subject; ``tovarincore.k8s_console_client`` publishes it.

The packages of the extra ``kubernetes`` are needed here: all but ``errors`` is imported at the first call.
"""
