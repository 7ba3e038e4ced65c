-- Dissector for the UQDF and UTDF messages of the tessel feed.
--
--     tshark -X lua_script:tools/wireshark/tessel.lua -r capture.pcap -Y 'tessel.symbol == "AAPL"'
--
-- Three protocols:
--   tessel             MoldUDP64 packets on the feed's UDP ports, by preference or with
--                      -d udp.port==PORT,tessel
--   tessel_snapshot    a Snap-Shot session on the feed's TCP port, by preference or with
--                      -d tcp.port==PORT,tessel_snapshot
--   tessel_message     one message; also below Wireshark's own SoupBinTCP dissector, and below its MoldUDP64
--                      dissector where "Decode As" asks for it
--
-- Prices are shown in dollars and trade sizes in shares, so that a filter reads tessel.bid > 190.5 whether
-- the message carries cents or millionths. The tables of fields, codes and layouts are generated from the
-- feed's own layout table; the rest is written by hand.

local feed = Proto("tessel", "UQDF/UTDF market data feed")
local snapshot = Proto("tessel_snapshot", "UQDF/UTDF Snap-Shot session")
local message = Proto("tessel_message", "UQDF/UTDF message")

-- How a field is read. `ftype` and `base` are what Wireshark makes of it, `get` takes it from its bytes.
local million = 1000000
local billion = UInt64(1000000000)

local function stripped(range)
    return (range:string():gsub("[ %z]+$", ""))
end

local function price(range)
    if range:len() == 2 then
        return range:uint() / 100
    end
    return range:int64():tonumber() / million
end

local function time(range)
    local ns = range:uint64()
    return NSTime.new((ns / billion):tonumber(), (ns % billion):tonumber())
end

local kinds = {
    letter = {ftype = ftypes.STRING, get = function(range) return range:string() end},
    text = {ftype = ftypes.STRING, get = stripped},
    padded = {ftype = ftypes.STRING, get = function(range) return range:string() end},
    count = {ftype = ftypes.UINT32, base = base.DEC, get = function(range) return range:uint() end},
    number = {ftype = ftypes.UINT64, base = base.DEC, get = function(range) return range:uint64() end},
    price = {ftype = ftypes.DOUBLE, get = price},
    shares = {ftype = ftypes.DOUBLE, get = function(range) return range:uint64():tonumber() / million end},
    time = {ftype = ftypes.ABSOLUTE_TIME, base = base.UTC, get = time},
}

-- Generated from here (scripts/generate).
-- Name, kind and title of every field.
local field_list = {
    {"version", "letter", "Version"},
    {"category", "letter", "Message Category"},
    {"type", "letter", "Message Type"},
    {"market_center", "letter", "Market Center Originator"},
    {"sub_market_center", "letter", "Sub-Market Center"},
    {"sip_time", "time", "SIP Timestamp"},
    {"participant_time", "time", "Participant Timestamp"},
    {"participant_token", "number", "Participant Token"},
    {"symbol", "text", "Symbol"},
    {"bid", "price", "Bid Price"},
    {"bid_size", "count", "Bid Size"},
    {"ask", "price", "Ask Price"},
    {"ask_size", "count", "Ask Size"},
    {"condition", "letter", "Quote Condition"},
    {"sip_flag", "letter", "SIP-Generated Message Identifier"},
    {"luld_bbo", "letter", "LULD BBO Indicator"},
    {"retail", "letter", "Retail Interest Indicator"},
    {"nbbo_indicator", "letter", "NBBO Appendage Indicator"},
    {"luld_nbbo", "letter", "LULD National BBO Indicator"},
    {"best_odd_lot_indicator", "letter", "Best Odd-Lot Appendage Indicator"},
    {"odd_lot_list_indicator", "letter", "Odd-Lot List Indicator"},
    {"odd_lot_count", "count", "Odd-Lot List Entries"},
    {"adf_time", "time", "ADF Timestamp"},
    {"adf_mpid_indicator", "letter", "ADF MPID Appendage Indicator"},
    {"mpid", "text", "MPID"},
    {"trf_time", "time", "FINRA/TRF Timestamp"},
    {"id", "number", "Trade ID"},
    {"price", "price", "Trade Price"},
    {"size", "shares", "Trade Size"},
    {"conditions", "padded", "Sale Conditions"},
    {"trade_through_exempt", "letter", "Trade-Through-Exempt Flag"},
    {"consolidated_change", "letter", "Consolidated Price Change Indicator"},
    {"participant_change", "letter", "Participant Price Change Indicator"},
    {"sale_days", "count", "Seller's Sale Days"},
    {"function", "letter", "Function"},
    {"consolidated_high", "price", "Consolidated High"},
    {"consolidated_low", "price", "Consolidated Low"},
    {"consolidated_last", "price", "Consolidated Last"},
    {"consolidated_volume", "shares", "Consolidated Volume"},
    {"last_center", "letter", "Consolidated Last-Sale Market Center"},
    {"participant_high", "price", "Participant High"},
    {"participant_low", "price", "Participant Low"},
    {"participant_last", "price", "Participant Last"},
    {"participant_volume", "shares", "Participant Volume"},
    {"corrected_id", "number", "Corrected Trade ID"},
    {"corrected_price", "price", "Corrected Trade Price"},
    {"corrected_size", "shares", "Corrected Trade Size"},
    {"corrected_conditions", "padded", "Corrected Sale Conditions"},
    {"corrected_trade_through_exempt", "letter", "Corrected Trade-Through-Exempt Flag"},
    {"corrected_sale_days", "count", "Corrected Seller's Sale Days"},
    {"as_of_action", "letter", "As-Of Action"},
    {"execution_time", "time", "Execution Time"},
    {"action", "letter", "Trading Action"},
    {"action_sequence", "count", "Action Sequence Number"},
    {"action_time", "time", "Action Time"},
    {"reason", "text", "Reason"},
    {"indicator", "letter", "Band Indicator"},
    {"effective_time", "time", "Effective Time"},
    {"lower", "price", "Lower Price"},
    {"upper", "price", "Upper Price"},
    {"reference", "price", "Collar Reference Price"},
    {"extension", "count", "Collar Extension Indicator"},
    {"level", "letter", "Breached Level"},
    {"level_1", "price", "Decline Level 1 Price"},
    {"level_2", "price", "Decline Level 2 Price"},
    {"level_3", "price", "Decline Level 3 Price"},
    {"old_symbol", "text", "Old Symbol"},
    {"issue_name", "text", "Issue Name"},
    {"issue_type", "letter", "Issue Type"},
    {"issue_sub_type", "text", "Issue Sub-Type"},
    {"flag_84", "letter", "Market Tier"},
    {"flag_85", "letter", "Authenticity"},
    {"flag_86", "letter", "Short Sale Threshold Indicator"},
    {"round_lot", "count", "Round Lot Size"},
    {"flag_89", "letter", "Financial Status Indicator"},
    {"flag_90", "letter", "Flag at 90"},
    {"flag_91", "letter", "Flag at 91"},
    {"flag_92", "letter", "Flag at 92"},
    {"state", "letter", "Trading State"},
    {"reserved_101", "number", "Reserved at 101"},
    {"reserved_109", "number", "Reserved at 109"},
    {"snapshot_sequence", "number", "Snapshot Sequence Number"},
    {"nbbo_condition", "letter", "NBBO Quote Condition"},
    {"nbbo_bid_center", "letter", "Best Bid Market Center"},
    {"nbbo_bid", "price", "Best Bid Price"},
    {"nbbo_bid_size", "count", "Best Bid Size"},
    {"nbbo_ask_center", "letter", "Best Offer Market Center"},
    {"nbbo_ask", "price", "Best Offer Price"},
    {"nbbo_ask_size", "count", "Best Offer Size"},
    {"bid_mpid", "text", "Bid MPID"},
    {"ask_mpid", "text", "Ask MPID"},
    {"best_odd_lot_bid_center", "letter", "Best Odd-Lot Bid Market Center"},
    {"best_odd_lot_bid", "price", "Best Odd-Lot Bid Price"},
    {"best_odd_lot_bid_size", "count", "Best Odd-Lot Bid Size"},
    {"best_odd_lot_ask_center", "letter", "Best Odd-Lot Ask Market Center"},
    {"best_odd_lot_ask", "price", "Best Odd-Lot Ask Price"},
    {"best_odd_lot_ask_size", "count", "Best Odd-Lot Ask Size"},
    {"best_odd_lot_bid_mpid", "text", "Best Odd-Lot Bid MPID"},
    {"best_odd_lot_ask_mpid", "text", "Best Odd-Lot Ask MPID"},
    {"odd_lot_center", "letter", "Odd-Lot Market Center"},
    {"odd_lot_side", "letter", "Odd-Lot Side"},
    {"odd_lot_price", "price", "Odd-Lot Price"},
    {"odd_lot_size", "count", "Odd-Lot Size"},
    {"odd_lot_mpid", "text", "Odd-Lot MPID"},
}

-- What the codes mean.
local codes = {}
codes["category"] = {
    ["Q"] = "quotation",
    ["T"] = "trade",
    ["A"] = "administrative",
    ["C"] = "control",
}
codes["sub_market_center"] = {
    [" "] = "none",
    ["N"] = "trade reporting facility N",
    ["Q"] = "trade reporting facility Q",
    ["B"] = "trade reporting facility B",
}
codes["condition"] = {
    ["R"] = "regular, two-sided; counts for the NBBO",
    ["Y"] = "one-sided; counts for the NBBO",
    ["A"] = "counts for the NBBO; not sent by this feed",
    ["B"] = "counts for the NBBO; not sent by this feed",
    ["H"] = "counts for the NBBO; not sent by this feed",
    ["O"] = "counts for the NBBO; not sent by this feed",
    ["N"] = "non-firm, while the instrument is halted or paused; never counts",
    ["L"] = "withdrawn by a halt or pause: prices and sizes are 0; never counts",
}
codes["sip_flag"] = {
    [" "] = "sent by the participant",
    ["E"] = "generated by the SIP, for a quote wipe-out",
}
codes["luld_bbo"] = {
    [" "] = "within the price band, or no band is active",
    ["A"] = "bid above the upper price",
    ["B"] = "ask below the lower price",
    ["C"] = "bid above the upper and ask below the lower price",
}
codes["retail"] = {
    [" "] = "none: always sent",
}
codes["nbbo_indicator"] = {
    ["0"] = "the NBBO has not changed",
    ["1"] = "there is no NBBO on either side",
    ["2"] = "the short NBBO appendage follows",
    ["3"] = "the long NBBO appendage follows",
    ["4"] = "this quote is the NBBO, on both sides",
}
codes["luld_nbbo"] = {
    [" "] = "no band is active",
    ["A"] = "both sides are executable",
    ["B"] = "best bid below the lower price",
    ["C"] = "best offer above the upper price",
    ["D"] = "best bid below the lower and best offer above the upper price",
    ["E"] = "best bid at the upper price: limit state",
    ["F"] = "best offer at the lower price: limit state",
    ["G"] = "best bid at the upper and best offer above the upper price",
    ["H"] = "best offer at the lower and best bid below the lower price",
    ["I"] = "best bid at the upper and best offer at the lower price",
}
codes["best_odd_lot_indicator"] = {
    ["0"] = "the best odd-lot quote has not changed, or there is none",
    ["1"] = "the best odd-lot quote has gone",
    ["2"] = "the short appendage follows",
    ["3"] = "the long appendage follows",
    ["5"] = "the long appendage with MPIDs follows",
}
codes["odd_lot_list_indicator"] = {
    ["0"] = "no list",
    ["2"] = "short entries follow",
    ["3"] = "long entries follow",
    ["4"] = "a count without entries; not sent by this feed",
    ["5"] = "long entries with MPIDs follow",
}
codes["adf_mpid_indicator"] = {
    [" "] = "no MPIDs",
    ["2"] = "the MPIDs of both sides follow",
}
codes["conditions"] = {
    ["@   "] = "regular sale",
    ["@  I"] = "odd lot: counts for volume only",
    ["@F  "] = "intermarket sweep",
    ["@O  "] = "opening cross",
    ["@5  "] = "re-opening cross",
    ["@6  "] = "closing cross",
    ["@  M"] = "official close, size 0: changes no statistics",
}
codes["trade_through_exempt"] = {
    [" "] = "not exempt",
    ["X"] = "exempt from the trade-through rule",
}
codes["consolidated_change"] = {
    ["0"] = "nothing changed",
    ["1"] = "last",
    ["2"] = "low",
    ["3"] = "last and low",
    ["4"] = "high",
    ["5"] = "last and high",
    ["6"] = "low and high",
    ["7"] = "last, low and high",
}
codes["function"] = {
    ["C"] = "cancel: the trade was canceled",
    ["E"] = "error: the trade was reported in error",
}
codes["as_of_action"] = {
    ["A"] = "the trade is added",
}
codes["action"] = {
    ["H"] = "trading halt",
    ["P"] = "LULD trading pause",
    ["Q"] = "quotation resumes",
    ["T"] = "trading resumes",
}
codes["reason"] = {
    ["T1"] = "halt by command or scenario",
    ["LUDP"] = "LULD pause, and its resumption",
    ["MWC1"] = "market-wide circuit breaker, level 1",
    ["MWC2"] = "market-wide circuit breaker, level 2",
    ["MWC3"] = "market-wide circuit breaker, level 3",
    ["T3"] = "resumption after a halt",
    ["MWCQ"] = "resumption after a circuit breaker",
}
codes["indicator"] = {
    ["A"] = "band of the start of day",
    ["B"] = "new band: the price moved by 1 %, or the band's period ended",
    ["C"] = "new band by command",
    ["D"] = "deactivated by a halt or pause; the prices are those of the last band",
    ["E"] = "active again: quotation resumes",
}
codes["level"] = {
    ["0"] = "level 0, by command only",
    ["1"] = "level 1",
    ["2"] = "level 2",
    ["3"] = "level 3 or above",
}
codes["state"] = {
    ["T"] = "trading, or quotation only",
    ["H"] = "halted or paused",
}
codes["nbbo_condition"] = {
    ["R"] = "both sides have a price",
    ["Y"] = "one side has none",
}
codes["odd_lot_side"] = {
    ["B"] = "bid",
    ["A"] = "ask",
}

-- The layouts: offset, width, field, meanings of codes. Every message begins with the header.
local header_bytes = 29
local header = {
        {0, 1, "version"},
        {1, 1, "category", codes["category"]},
        {2, 1, "type"},
        {3, 1, "market_center"},
        {4, 1, "sub_market_center", codes["sub_market_center"]},
        {5, 8, "sip_time"},
        {13, 8, "participant_time"},
        {21, 8, "participant_token"},
}

-- By category and type. `quote` marks the messages that appendages may follow.
local layouts = {
    QC = {kind = "quote_short", length = 52, quote = true,
        {29, 5, "symbol"},
        {34, 2, "bid"},
        {36, 2, "bid_size"},
        {38, 2, "ask"},
        {40, 2, "ask_size"},
        {42, 1, "condition", codes["condition"]},
        {43, 1, "sip_flag", codes["sip_flag"]},
        {44, 1, "luld_bbo", codes["luld_bbo"]},
        {45, 1, "retail", codes["retail"]},
        {46, 1, "nbbo_indicator", codes["nbbo_indicator"]},
        {47, 1, "luld_nbbo", codes["luld_nbbo"]},
        {48, 1, "best_odd_lot_indicator", codes["best_odd_lot_indicator"]},
        {49, 1, "odd_lot_list_indicator", codes["odd_lot_list_indicator"]},
        {50, 2, "odd_lot_count"},
    },
    QD = {kind = "quote_long", length = 83, quote = true,
        {29, 8, "adf_time"},
        {37, 11, "symbol"},
        {48, 8, "bid"},
        {56, 4, "bid_size"},
        {60, 8, "ask"},
        {68, 4, "ask_size"},
        {72, 1, "condition", codes["condition"]},
        {73, 1, "sip_flag", codes["sip_flag"]},
        {74, 1, "luld_bbo", codes["luld_bbo"]},
        {75, 1, "retail", codes["retail"]},
        {76, 1, "nbbo_indicator", codes["nbbo_indicator"]},
        {77, 1, "luld_nbbo", codes["luld_nbbo"]},
        {78, 1, "adf_mpid_indicator", codes["adf_mpid_indicator"]},
        {79, 1, "best_odd_lot_indicator", codes["best_odd_lot_indicator"]},
        {80, 1, "odd_lot_list_indicator", codes["odd_lot_list_indicator"]},
        {81, 2, "odd_lot_count"},
    },
    QM = {kind = "mpid_quote", length = 77,
        {29, 8, "adf_time"},
        {37, 11, "symbol"},
        {48, 8, "bid"},
        {56, 4, "bid_size"},
        {60, 8, "ask"},
        {68, 4, "ask_size"},
        {72, 1, "condition", codes["condition"]},
        {73, 4, "mpid"},
    },
    QA = {kind = "odd_lots_short", length = 39, quote = true,
        {29, 5, "symbol"},
        {34, 1, "sip_flag", codes["sip_flag"]},
        {35, 1, "best_odd_lot_indicator", codes["best_odd_lot_indicator"]},
        {36, 1, "odd_lot_list_indicator", codes["odd_lot_list_indicator"]},
        {37, 2, "odd_lot_count"},
    },
    QB = {kind = "odd_lots_long", length = 53, quote = true,
        {29, 8, "adf_time"},
        {37, 11, "symbol"},
        {48, 1, "sip_flag", codes["sip_flag"]},
        {49, 1, "best_odd_lot_indicator", codes["best_odd_lot_indicator"]},
        {50, 1, "odd_lot_list_indicator", codes["odd_lot_list_indicator"]},
        {51, 2, "odd_lot_count"},
    },
    TM = {kind = "trade_short", length = 67,
        {29, 8, "trf_time"},
        {37, 5, "symbol"},
        {42, 8, "id"},
        {50, 2, "price"},
        {52, 8, "size"},
        {60, 4, "conditions", codes["conditions"]},
        {64, 1, "trade_through_exempt", codes["trade_through_exempt"]},
        {65, 1, "consolidated_change", codes["consolidated_change"]},
        {66, 1, "participant_change", codes["consolidated_change"]},
    },
    TN = {kind = "trade_long", length = 81,
        {29, 8, "trf_time"},
        {37, 11, "symbol"},
        {48, 8, "id"},
        {56, 8, "price"},
        {64, 8, "size"},
        {72, 4, "conditions", codes["conditions"]},
        {76, 1, "trade_through_exempt", codes["trade_through_exempt"]},
        {77, 2, "sale_days"},
        {79, 1, "consolidated_change", codes["consolidated_change"]},
        {80, 1, "participant_change", codes["consolidated_change"]},
    },
    TO = {kind = "cancel_error", length = 146,
        {29, 8, "trf_time"},
        {37, 11, "symbol"},
        {48, 1, "function", codes["function"]},
        {49, 8, "id"},
        {57, 8, "price"},
        {65, 8, "size"},
        {73, 4, "conditions", codes["conditions"]},
        {77, 1, "trade_through_exempt", codes["trade_through_exempt"]},
        {78, 2, "sale_days"},
        {80, 8, "consolidated_high"},
        {88, 8, "consolidated_low"},
        {96, 8, "consolidated_last"},
        {104, 8, "consolidated_volume"},
        {112, 1, "consolidated_change", codes["consolidated_change"]},
        {113, 1, "last_center"},
        {114, 8, "participant_high"},
        {122, 8, "participant_low"},
        {130, 8, "participant_last"},
        {138, 8, "participant_volume"},
    },
    TP = {kind = "correction", length = 176,
        {29, 8, "trf_time"},
        {37, 11, "symbol"},
        {48, 8, "id"},
        {56, 8, "price"},
        {64, 8, "size"},
        {72, 4, "conditions", codes["conditions"]},
        {76, 1, "trade_through_exempt", codes["trade_through_exempt"]},
        {77, 2, "sale_days"},
        {79, 8, "corrected_id"},
        {87, 8, "corrected_price"},
        {95, 8, "corrected_size"},
        {103, 4, "corrected_conditions", codes["conditions"]},
        {107, 1, "corrected_trade_through_exempt", codes["trade_through_exempt"]},
        {108, 2, "corrected_sale_days"},
        {110, 8, "consolidated_high"},
        {118, 8, "consolidated_low"},
        {126, 8, "consolidated_last"},
        {134, 8, "consolidated_volume"},
        {142, 1, "consolidated_change", codes["consolidated_change"]},
        {143, 1, "last_center"},
        {144, 8, "participant_high"},
        {152, 8, "participant_low"},
        {160, 8, "participant_last"},
        {168, 8, "participant_volume"},
    },
    TQ = {kind = "as_of", length = 88,
        {29, 8, "trf_time"},
        {37, 11, "symbol"},
        {48, 8, "id"},
        {56, 8, "price"},
        {64, 8, "size"},
        {72, 4, "conditions", codes["conditions"]},
        {76, 1, "trade_through_exempt", codes["trade_through_exempt"]},
        {77, 2, "sale_days"},
        {79, 1, "as_of_action", codes["as_of_action"]},
        {80, 8, "execution_time"},
    },
    AH = {kind = "trading_action", length = 59,
        {29, 11, "symbol"},
        {40, 1, "action", codes["action"]},
        {41, 4, "action_sequence"},
        {45, 8, "action_time"},
        {53, 6, "reason", codes["reason"]},
    },
    AP = {kind = "price_band", length = 65,
        {29, 11, "symbol"},
        {40, 1, "indicator", codes["indicator"]},
        {41, 8, "effective_time"},
        {49, 8, "lower"},
        {57, 8, "upper"},
    },
    AE = {kind = "collar", length = 69,
        {29, 11, "symbol"},
        {40, 4, "action_sequence"},
        {44, 8, "reference"},
        {52, 8, "upper"},
        {60, 8, "lower"},
        {68, 1, "extension"},
    },
    AD = {kind = "mwcb_status", length = 30,
        {29, 1, "level", codes["level"]},
    },
    AC = {kind = "decline_levels", length = 53,
        {29, 8, "level_1"},
        {37, 8, "level_2"},
        {45, 8, "level_3"},
    },
    AB = {kind = "directory_short", length = 90,
        {29, 11, "symbol"},
        {40, 11, "old_symbol"},
        {51, 30, "issue_name"},
        {81, 1, "issue_type"},
        {82, 2, "issue_sub_type"},
        {84, 1, "flag_84"},
        {85, 1, "flag_85"},
        {86, 1, "flag_86"},
        {87, 2, "round_lot"},
        {89, 1, "flag_89"},
    },
    AF = {kind = "directory_long", length = 117,
        {29, 11, "symbol"},
        {40, 11, "old_symbol"},
        {51, 30, "issue_name"},
        {81, 1, "issue_type"},
        {82, 2, "issue_sub_type"},
        {84, 1, "flag_84"},
        {85, 1, "flag_85"},
        {86, 1, "flag_86"},
        {87, 2, "round_lot"},
        {89, 1, "flag_89"},
        {90, 1, "flag_90"},
        {91, 1, "flag_91"},
        {92, 1, "flag_92"},
        {93, 1, "state", codes["state"]},
        {94, 6, "reason", codes["reason"]},
        {100, 1, "indicator"},
        {101, 8, "reserved_101"},
        {109, 8, "reserved_109"},
    },
    AV = {kind = "indicator", length = 41,
        {29, 11, "symbol"},
        {40, 1, "indicator"},
    },
    AS = {kind = "end_of_snapshot", length = 37,
        {29, 8, "snapshot_sequence"},
    },
    CI = {kind = "start_of_day", length = 29,
    },
    CO = {kind = "session_open", length = 29,
    },
    CP = {kind = "wipe_out", length = 29,
    },
}

-- What may follow a quote: when the field `indicator` has the value; offsets count from where it starts.
local appendages = {
    {indicator = "nbbo_indicator", value = "2", title = "NBBO",
        length = 11,
        {0, 1, "nbbo_condition", codes["nbbo_condition"]},
        {1, 1, "nbbo_bid_center"},
        {2, 2, "nbbo_bid"},
        {4, 2, "nbbo_bid_size"},
        {6, 1, "nbbo_ask_center"},
        {7, 2, "nbbo_ask"},
        {9, 2, "nbbo_ask_size"},
    },
    {indicator = "nbbo_indicator", value = "3", title = "NBBO",
        length = 27,
        {0, 1, "nbbo_condition", codes["nbbo_condition"]},
        {1, 1, "nbbo_bid_center"},
        {2, 8, "nbbo_bid"},
        {10, 4, "nbbo_bid_size"},
        {14, 1, "nbbo_ask_center"},
        {15, 8, "nbbo_ask"},
        {23, 4, "nbbo_ask_size"},
    },
    {indicator = "adf_mpid_indicator", value = "2", title = "ADF MPIDs",
        length = 8,
        {0, 4, "bid_mpid"},
        {4, 4, "ask_mpid"},
    },
    {indicator = "best_odd_lot_indicator", value = "2", title = "Best odd-lot quote",
        length = 10,
        {0, 1, "best_odd_lot_bid_center"},
        {1, 2, "best_odd_lot_bid"},
        {3, 2, "best_odd_lot_bid_size"},
        {5, 1, "best_odd_lot_ask_center"},
        {6, 2, "best_odd_lot_ask"},
        {8, 2, "best_odd_lot_ask_size"},
    },
    {indicator = "best_odd_lot_indicator", value = "3", title = "Best odd-lot quote",
        length = 22,
        {0, 1, "best_odd_lot_bid_center"},
        {1, 8, "best_odd_lot_bid"},
        {9, 2, "best_odd_lot_bid_size"},
        {11, 1, "best_odd_lot_ask_center"},
        {12, 8, "best_odd_lot_ask"},
        {20, 2, "best_odd_lot_ask_size"},
    },
    {indicator = "best_odd_lot_indicator", value = "5", title = "Best odd-lot quote",
        length = 30,
        {0, 1, "best_odd_lot_bid_center"},
        {1, 8, "best_odd_lot_bid"},
        {9, 2, "best_odd_lot_bid_size"},
        {11, 1, "best_odd_lot_ask_center"},
        {12, 8, "best_odd_lot_ask"},
        {20, 2, "best_odd_lot_ask_size"},
        {22, 4, "best_odd_lot_bid_mpid"},
        {26, 4, "best_odd_lot_ask_mpid"},
    },
    {indicator = "odd_lot_list_indicator", value = "2", title = "Odd-lot order",
        length = 6, repeated = true,
        {0, 1, "odd_lot_center"},
        {1, 1, "odd_lot_side", codes["odd_lot_side"]},
        {2, 2, "odd_lot_price"},
        {4, 2, "odd_lot_size"},
    },
    {indicator = "odd_lot_list_indicator", value = "3", title = "Odd-lot order",
        length = 12, repeated = true,
        {0, 1, "odd_lot_center"},
        {1, 1, "odd_lot_side", codes["odd_lot_side"]},
        {2, 8, "odd_lot_price"},
        {10, 2, "odd_lot_size"},
    },
    {indicator = "odd_lot_list_indicator", value = "5", title = "Odd-lot order",
        length = 16, repeated = true,
        {0, 1, "odd_lot_center"},
        {1, 1, "odd_lot_side", codes["odd_lot_side"]},
        {2, 8, "odd_lot_price"},
        {10, 2, "odd_lot_size"},
        {12, 4, "odd_lot_mpid"},
    },
}

-- SoupBinTCP: the names of the packet types, and the payloads.
local soup_types = {
    ["L"] = "Login Request",
    ["A"] = "Login Accepted",
    ["J"] = "Login Rejected",
    ["H"] = "Server Heartbeat",
    ["R"] = "Client Heartbeat",
    ["S"] = "Sequenced Data",
    ["U"] = "Unsequenced Data",
    ["Z"] = "End of Session",
    ["O"] = "Logout Request",
    ["+"] = "Debug",
}
local soup_layouts = {
    L = {length = 49,
        {3, 6, "username"},
        {9, 10, "password"},
        {19, 10, "session"},
        {29, 20, "requested_sequence"},
    },
    A = {length = 33,
        {3, 10, "session"},
        {13, 20, "next_sequence"},
    },
    J = {length = 4,
        {3, 1, "reject_code"},
    },
}
-- Generated to here.

local fields = {}
local proto_fields = {}
for _, row in ipairs(field_list) do
    local name, kind, title = row[1], kinds[row[2]], row[3]
    fields[name] = {kind = kind, proto_field = ProtoField.new(title, "tessel." .. name, kind.ftype, nil,
        kind.base)}
    proto_fields[name] = fields[name].proto_field
end
-- Fields that are not in the bytes of a message.
local sequence_field = ProtoField.uint64("tessel.seq", "Sequence Number", base.DEC, nil, nil,
    "The message's number in the MoldUDP64 stream; messages of a Snap-Shot have none")
local kind_field = ProtoField.string("tessel.kind", "Kind")
proto_fields.seq = sequence_field
proto_fields.kind = kind_field
message.fields = proto_fields

local wrong_length = ProtoExpert.new("tessel.wrong_length", "The message's length does not fit its layout",
    expert.group.MALFORMED, expert.severity.ERROR)
local unknown_kind = ProtoExpert.new("tessel.unknown_kind", "Not a message of this feed",
    expert.group.UNDECODED, expert.severity.WARN)
message.experts = {wrong_length, unknown_kind}
local cut_block = ProtoExpert.new("tessel.cut_block", "The packet ends inside a message block",
    expert.group.MALFORMED, expert.severity.ERROR)
feed.experts = {cut_block}
local short_packet = ProtoExpert.new("tessel.short_packet",
    "The SoupBinTCP packet is shorter than its type says",
    expert.group.MALFORMED, expert.severity.ERROR)
snapshot.experts = {short_packet}

-- What carries the messages.
local feed_fields = {
    session = ProtoField.string("tessel.session", "Session"),
    packet_sequence = ProtoField.uint64("tessel.packet_sequence", "Packet Sequence Number"),
    packet_count = ProtoField.uint16("tessel.packet_count", "Message Count"),
}
feed.fields = feed_fields
local snapshot_fields = {
    packet_length = ProtoField.uint16("tessel_snapshot.packet_length", "Packet Length"),
    packet_type = ProtoField.string("tessel_snapshot.packet_type", "Packet Type"),
    username = ProtoField.string("tessel_snapshot.username", "Username"),
    password = ProtoField.string("tessel_snapshot.password", "Password"),
    session = ProtoField.string("tessel_snapshot.session", "Session"),
    requested_sequence = ProtoField.string("tessel_snapshot.requested_sequence", "Requested Sequence Number"),
    next_sequence = ProtoField.string("tessel_snapshot.next_sequence", "Sequence Number"),
    reject_code = ProtoField.string("tessel_snapshot.reject_code", "Reject Reason Code"),
}
snapshot.fields = snapshot_fields

-- Adds the rows of a layout whose bytes start at `start`; what was read goes into `values` by name. The
-- caller has made sure that the bytes are there.
local function add_rows(rows, buffer, start, tree, values)
    for _, row in ipairs(rows) do
        local field = fields[row[3]]
        local range = buffer(start + row[1], row[2])
        local value = field.kind.get(range)
        local item = tree:add(field.proto_field, range, value)
        local meaning = row[4] and row[4][value]
        if meaning then
            item:append_text(" (" .. meaning .. ")")
        end
        values[row[3]] = value
    end
end

-- Adds the appendages of a quote from `start` on, each in its own tree. Returns where they end, nil when
-- the message ends before they do.
local function add_appendages(buffer, start, tree, values)
    for _, appendage in ipairs(appendages) do
        local follows = values[appendage.indicator] == appendage.value
        local entries = not follows and 0 or appendage.repeated and values.odd_lot_count or 1
        for index = 1, entries do
            if start + appendage.length > buffer:len() then
                return nil
            end
            local title = appendage.title .. (appendage.repeated and " " .. index or "")
            add_rows(appendage, buffer, start, tree:add(buffer(start, appendage.length), title), values)
            start = start + appendage.length
        end
    end
    return start
end

local function dollars(value)
    return string.format("%.2f", value)
end

-- What a reader wants to see of a message in one line.
local function summary(kind, values)
    local text = kind:gsub("_", " ")
    if values.symbol then
        text = text .. " " .. values.symbol
    end
    if values.bid then
        text = text .. string.format(" %s %d x %s %d", dollars(values.bid), values.bid_size,
            dollars(values.ask), values.ask_size)
    elseif values.price then
        text = text .. string.format(" %g @ %s", values.size, dollars(values.price))
    elseif values.action then
        text = text .. " " .. values.action .. " " .. values.reason
    elseif values.upper then
        text = text .. string.format(" %s to %s", dollars(values.lower), dollars(values.upper))
    elseif values.level then
        text = text .. " level " .. values.level
    elseif values.snapshot_sequence then
        text = text .. " at " .. tostring(values.snapshot_sequence)
    end
    if values.market_center ~= "E" then
        text = text .. " (" .. values.market_center .. ")"
    end
    return text
end

-- Adds one message to the tree and returns its line. `sequence` is its number in the stream, nil in a
-- Snap-Shot.
local function dissect_message(buffer, tree, sequence)
    local length = buffer:len()
    local subtree = tree:add(message, buffer())
    if sequence then
        subtree:add(sequence_field, sequence):set_generated()
    end
    if length < header_bytes then
        subtree:add_proto_expert_info(wrong_length)
        return "message of " .. length .. " bytes"
    end
    local values = {}
    local layout = layouts[buffer(1, 2):string()]
    subtree:add(kind_field, buffer(1, 2), layout and layout.kind or "unknown")
    add_rows(header, buffer, 0, subtree:add(buffer(0, header_bytes), "Header"), values)
    if not layout then
        subtree:add_proto_expert_info(unknown_kind)
        subtree:append_text(", unknown")
        return "unknown message " .. values.category .. values.type
    end
    if length < layout.length then
        subtree:add_proto_expert_info(wrong_length)
        return layout.kind .. " cut short"
    end
    add_rows(layout, buffer, 0, subtree, values)
    local finish = layout.length
    if layout.quote then
        finish = add_appendages(buffer, layout.length, subtree, values)
    end
    if finish ~= length then
        subtree:add_proto_expert_info(wrong_length)
    end
    local line = summary(layout.kind, values)
    subtree:append_text(", " .. line)
    return line
end

function message.dissector(buffer, pinfo, tree)
    if buffer:len() == 0 then
        return 0
    end
    local line = dissect_message(buffer, tree, nil)
    pinfo.cols.protocol = "TESSEL"
    pinfo.cols.info:append(", " .. line)
    return buffer:len()
end

-- Whether bytes can be a message: a version, a known category and type, and at least the layout's length.
local function looks_like_message(buffer)
    if buffer:len() < header_bytes or buffer(0, 1):string() ~= "1" then
        return false
    end
    local layout = layouts[buffer(1, 2):string()]
    return layout ~= nil and buffer:len() >= layout.length
end

message:register_heuristic("soupbintcp", function(buffer, pinfo, tree)
    if not looks_like_message(buffer) then
        return false
    end
    message.dissector(buffer, pinfo, tree)
    return true
end)

-- MoldUDP64 packets, in both directions: downstream packets, and requests to the retransmission service,
-- which are a header whose count promises messages and nothing after it.
local mold_header_bytes = 20

local function add_blocks(buffer, subtree, sequence, count)
    local offset = mold_header_bytes
    local first_line = ""
    for index = 0, count - 1 do
        local left = buffer:len() - offset
        local length = left >= 2 and buffer(offset, 2):uint() or 0
        if left < 2 + length or length == 0 then
            subtree:add_proto_expert_info(cut_block)
            return first_line
        end
        local line = dissect_message(buffer(offset + 2, length):tvb(), subtree, sequence + index)
        first_line = index == 0 and line or first_line
        offset = offset + 2 + length
    end
    if offset ~= buffer:len() then
        subtree:add_proto_expert_info(cut_block)
    end
    return first_line
end

function feed.dissector(buffer, pinfo, tree)
    if buffer:len() < mold_header_bytes then
        return 0
    end
    pinfo.cols.protocol = "TESSEL"
    local sequence = buffer(10, 8):uint64()
    local count = buffer(18, 2):uint()
    local subtree = tree:add(feed, buffer())
    subtree:add(feed_fields.session, buffer(0, 10), stripped(buffer(0, 10)))
    subtree:add(feed_fields.packet_sequence, buffer(10, 8))
    subtree:add(feed_fields.packet_count, buffer(18, 2))
    if count == 0 then
        pinfo.cols.info = "heartbeat, next " .. tostring(sequence)
    elseif buffer:len() == mold_header_bytes then
        pinfo.cols.info = string.format("request from %s, %d messages", tostring(sequence), count)
    else
        local first_line = add_blocks(buffer, subtree, sequence, count)
        local more = count > 1 and string.format(" and %d more", count - 1) or ""
        pinfo.cols.info = string.format("%s: %s%s", tostring(sequence), first_line, more)
    end
    return buffer:len()
end

-- SoupBinTCP packets of a Snap-Shot session, put together from however many segments they came in.
local function dissect_soup_packet(buffer, pinfo, tree)
    local subtree = tree:add(snapshot, buffer())
    subtree:add(snapshot_fields.packet_length, buffer(0, 2))
    pinfo.cols.protocol = "TESSEL"
    if buffer:len() < 3 then
        subtree:add_proto_expert_info(short_packet)
        return buffer:len()
    end
    local letter = buffer(2, 1):string()
    local title = soup_types[letter] or "unknown packet"
    subtree:add(snapshot_fields.packet_type, buffer(2, 1)):append_text(" (" .. title .. ")")
    subtree:append_text(", " .. title)
    local layout = soup_layouts[letter]
    local line = title
    if layout and buffer:len() < layout.length then
        subtree:add_proto_expert_info(short_packet)
    elseif layout then
        for _, row in ipairs(layout) do
            local range = buffer(row[1], row[2])
            subtree:add(snapshot_fields[row[3]], range, stripped(range))
        end
    elseif letter == "S" and buffer:len() > 3 then
        line = dissect_message(buffer(3):tvb(), subtree, nil)
    end
    pinfo.cols.info:append(", " .. line)
    return buffer:len()
end

local function soup_packet_bytes(buffer, _, offset)
    return 2 + buffer(offset, 2):uint()
end

function snapshot.dissector(buffer, pinfo, tree)
    pinfo.cols.info = "Snap-Shot"
    return dissect_tcp_pdus(buffer, tree, 2, soup_packet_bytes, dissect_soup_packet)
end

-- Ports. The feed's defaults; both take a range such as "25177-25178,30001".
feed.prefs.udp_ports = Pref.range("UDP ports", "25177-25178",
    "Ports of the feed and of its retransmission service", 65535)
feed.prefs.tcp_ports = Pref.range("TCP ports", "25179", "Ports of the Snap-Shot service", 65535)

local used = {}
local function use_ports(table_name, ports, protocol)
    local ports_table = DissectorTable.get(table_name)
    if used[table_name] and used[table_name] ~= "" then
        ports_table:remove(used[table_name], protocol)
    end
    if ports ~= "" then
        ports_table:add(ports, protocol)
    end
    used[table_name] = ports
end

local function use_all_ports()
    use_ports("udp.port", tostring(feed.prefs.udp_ports), feed)
    use_ports("tcp.port", tostring(feed.prefs.tcp_ports), snapshot)
end
feed.prefs_changed = use_all_ports
use_all_ports()
DissectorTable.get("moldudp64.payload"):add_for_decode_as(message)
