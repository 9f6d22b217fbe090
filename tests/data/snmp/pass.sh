# snmpd's pass protocol: "-g OID" asks for OID; the answer is the OID, the
# type and the value, one a line. Only GET is answered.
[ "$1" = "-g" ] || exit 0
case "$2" in
  .1.3.6.1.4.1.99999.3.1.0) set -- "$2" counter64 18446744073709551615 ;;
  .1.3.6.1.4.1.99999.3.2.0) set -- "$2" ipaddress 192.168.1.20 ;;
  .1.3.6.1.4.1.99999.3.3.0) set -- "$2" integer -2147483648 ;;
  .1.3.6.1.4.1.99999.3.4.0) set -- "$2" counter 4294967295 ;;
  .1.3.6.1.4.1.99999.3.5.0) set -- "$2" integer 2147483647 ;;
  *) exit 0 ;;
esac
printf '%s\n' "$@"
