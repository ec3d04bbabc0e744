"""Small helpers for the texts in which providers describe their instances."""

__all__ = ["ObjectMetaTextUtil"]


class ObjectMetaTextUtil:
    """Reads names out of the metadata texts of provider objects."""

    @staticmethod
    def get_profile_name_from_arn(arn: str) -> str:
        """Return the instance profile name inside an instance-profile ARN.

        IAM writes such an ARN as ``arn:partition:iam::account:instance-profile/path/name``. The path is
        optional and may have several steps, a name holds no slash, so the name is what follows the last one.

        :param arn: the ARN as EC2 lists it
        :return: the profile name; a text without a slash is returned whole, since a listing should not
            fail because of a name that is only shown
        """
        return arn.rpartition("/")[2]
