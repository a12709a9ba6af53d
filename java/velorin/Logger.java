package velorin;

/**
 * Messages of the appliance's Java components for the syslog service and the unified log.
 *
 * <p>Messages are dropped when the syslog client cannot be initialised. All methods may be called
 * from any thread; none throws. A JVM that cannot load the library fails at the first use of the
 * class, with an {@link UnsatisfiedLinkError} that names the file or the folders tried and the JVM's
 * width.
 */
public final class Logger {
  static {
    NativeLibrary.load();
  }

  private Logger() {}

  /**
   * Records a message with the syslog service and sends it to the unified log.
   *
   * @param priority 0 (emergency) to 7 (debug); the unified log has '?' for the letter of any other
   * @param module the syslog module to record it under
   * @param messageId the number of the message
   * @param message the text; null is recorded as "(null message)" under module 84 and not sent to the
   *     unified log
   */
  public static native void ku_syslog(int priority, int module, int messageId, String message);

  /** The same under module 84. */
  public static native void zam_syslog(int priority, int messageId, String message);

  /** Returns whether the syslog client is usable and debug output of module 84 is on. */
  public static native boolean is_debug_enabled();

  /** Switches debug output of module 84. */
  public static native void set_debug(boolean on);
}
