"""A market-data feed emulator as a fixture: start it, steer it, judge a handler.

Feed and Listener start the programs on free ports and are ready when they return; judge() compares a
handler's output with the truth log; certify() runs the catalog of cases against a handler.
"""

from tessel.certification import Case, Certificate, certify
from tessel.feed import Feed
from tessel.judgment import Judgment, judge
from tessel.listener import Listener
from tessel.process import StartError

__version__ = "1.0.0"
__all__ = ["Case", "Certificate", "Feed", "Judgment", "Listener", "StartError", "certify", "judge"]
