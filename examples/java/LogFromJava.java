import velorin.Logger;

/** Logs one message of each kind; see docs/diagnostics.md. */
public final class LogFromJava {
  private static final int MODULE = 12;
  private static final int STARTED = 512001;
  private static final int NO_LIST = 512002;

  // Priorities, as in syslog.
  private static final int ERROR = 3;
  private static final int NOTICE = 5;
  private static final int DEBUG = 7;

  private LogFromJava() {}

  public static void main(String[] arguments) {
    // Recorded under module 84, which all of the appliance's Java components share.
    Logger.zam_syslog(NOTICE, STARTED, "started");

    // Recorded under the component's own module.
    Logger.ku_syslog(ERROR, MODULE, NO_LIST, "no list: every client is refused");

    // A message that costs something to make is made only when someone wants it.
    Logger.set_debug(true);
    if (Logger.is_debug_enabled()) {
      Logger.zam_syslog(DEBUG, STARTED, "arguments: " + String.join(" ", arguments));
    }
    Logger.set_debug(false);
    System.out.println("debug output is " + (Logger.is_debug_enabled() ? "on" : "off"));
  }
}
