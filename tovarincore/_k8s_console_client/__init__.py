"""Work on a Kubernetes cluster, one file per subject; ``tovarincore.k8s_console_client`` publishes it.

Everything here but ``errors`` and ``deadline`` needs the package ``lightkube``, so the client imports it
when it is first used.
"""
