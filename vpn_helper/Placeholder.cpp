namespace VpnHelper {}
