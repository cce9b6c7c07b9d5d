-- kzqbtchs: batches and compilations. One row: this instance's SQL Statistics counters.
-- Reads: sys.dm_os_performance_counters (SQL Statistics object).
-- Needs: VIEW SERVER STATE.
-- All per second between two samples.
-- rate: APARAMSEC, BATCHSEC, FAPARAMSEC, SAPARAMSEC, ATTNRATE, CMPLSEC, UAPARAMSEC, RCMPLSEC, FPARAMSEC
WITH counters AS (
    SELECT RTRIM(counter_name) AS ctr, cntr_value AS val
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:SQL Statistics'
)
SELECT
    MAX(CASE WHEN ctr = N'Auto-Param Attempts/sec' THEN val END) AS APARAMSEC,
    MAX(CASE WHEN ctr = N'Batch Requests/sec' THEN val END) AS BATCHSEC,
    MAX(CASE WHEN ctr = N'Failed Auto-Params/sec' THEN val END) AS FAPARAMSEC,
    MAX(CASE WHEN ctr = N'Safe Auto-Params/sec' THEN val END) AS SAPARAMSEC,
    MAX(CASE WHEN ctr = N'SQL Attention rate' THEN val END) AS ATTNRATE,
    MAX(CASE WHEN ctr = N'SQL Compilations/sec' THEN val END) AS CMPLSEC,
    MAX(CASE WHEN ctr = N'Unsafe Auto-Params/sec' THEN val END) AS UAPARAMSEC,
    MAX(CASE WHEN ctr = N'SQL Re-Compilations/sec' THEN val END) AS RCMPLSEC,
    MAX(CASE WHEN ctr = N'Forced Parameterizations/sec' THEN val END) AS FPARAMSEC,
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME
FROM counters;
