# The daemon's own user and group, vendor_vord (vord.rc). Name it in the
# product's TARGET_FS_CONFIG_GEN.
[AID_VENDOR_VORD]
value: 2950
